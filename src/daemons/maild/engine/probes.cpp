#include "daemons/maild/engine/probes.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "daemons/maild/engine/zipfile.h"
#include "text/base64.h"

namespace {

constexpr int kLevels = 150;  // an engine's limit can't be set above 100
constexpr int kFiles = 12000;
constexpr std::size_t kCodedLine = 57;  // bytes in a line of 76

// In two pieces, so that neither this file nor the program is taken for the pattern itself.
std::string Pattern() {
    std::string text = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-";
    return text + "ANTIVIRUS-TEST-FILE!$H+H*";
}

std::string Coded(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() * 4 / 3 + bytes.size() / kCodedLine * 2 + 8);
    for (std::size_t at = 0; at < bytes.size(); at += kCodedLine)
        out += Base64Encode(bytes.substr(at, kCodedLine)) + "\r\n";
    return out;
}

constexpr std::string_view kFirst = "Received: from probe\r\n";
constexpr std::string_view kHeader =
    "Subject: probe\r\nMIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed; boundary=\"probe\"\r\n\r\n";
constexpr std::string_view kText = "--probe\r\nContent-Type: text/plain\r\n\r\n";
constexpr std::string_view kEnd = "--probe--\r\n";

std::string Attached(std::string_view bytes, std::string_view name) {
    return "--probe\r\nContent-Type: application/octet-stream; name=\"" + std::string(name) +
           "\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Coded(bytes);
}

platform::File InMemory(std::string_view text) {
    platform::File file(memfd_create("probe", MFD_CLOEXEC));
    if (!file || !file.Write(text.data(), text.size()) ||
        lseek(file.Descriptor(), 0, SEEK_SET) != 0)
        return {};
    return file;
}

platform::File Message(std::string_view bytes, std::string_view name) {
    return InMemory(std::string(kFirst) + std::string(kHeader) + Attached(bytes, name) +
                    std::string(kEnd));
}

}  // namespace

platform::File MakePatternProbe() { return Message(Pattern(), "probe.com"); }

platform::File MakeSizeProbe(long long bytes) {
    const std::string begin =
        std::string(kFirst) + std::string(kHeader) + std::string(kText) + "probe\r\n";
    const std::string end = "\r\n" + Attached(Pattern(), "probe.com") + std::string(kEnd);
    platform::File file = InMemory(begin);
    const off_t at = bytes - static_cast<off_t>(end.size());
    if (!file || at < static_cast<off_t>(begin.size()) ||
        lseek(file.Descriptor(), at, SEEK_SET) != at || !file.Write(end.data(), end.size()) ||
        lseek(file.Descriptor(), 0, SEEK_SET) != 0)
        return {};
    return file;
}

platform::File MakeUnpackProbe() {
    // Not more than a signed 32-bit number holds.
    constexpr std::uint32_t kMegabytes = 2000;
    return Message(ZipOfHugeZip(kMegabytes, "probe.com", Pattern()), "probe.zip");
}

platform::File MakeNestingProbe() {
    ZipWriter zip;
    zip.Add("probe.com", Pattern());
    std::string text(kFirst);
    text += "MIME-Version: 1.0\r\n";
    for (int i = 0; i < kLevels; ++i) text += "Content-Type: message/rfc822\r\n\r\n";
    text += std::string(kHeader) + Attached(zip.Finish(), "probe.zip") + std::string(kEnd);
    return InMemory(text);
}

platform::File MakeFilesProbe() {
    ZipWriter zip;
    for (int i = 0; i < kFiles; ++i) zip.AddStored(std::to_string(i), std::to_string(i));
    zip.Add("probe.com", Pattern());
    return Message(zip.Finish(), "probe.zip");
}
