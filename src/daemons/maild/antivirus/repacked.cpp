#include "daemons/maild/antivirus/repacked.h"

#include <cstdio>

#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

constexpr long long kPutAt = 4 << 20;  // bytes
constexpr std::size_t kBlock = 512;
constexpr std::size_t kSizeAt = 124;
constexpr std::size_t kChecksumAt = 148;
constexpr std::size_t kMarkAt = 257;

void WriteOctal(std::string& header, std::size_t at, unsigned long long number, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "%0*llo", digits, number);
    header.replace(at, static_cast<std::size_t>(digits), text);
}

std::string HeaderOf(long long size) {
    std::string header(kBlock, '\0');
    header[0] = 'f';
    header.replace(100, 7, "0000644");
    WriteOctal(header, kSizeAt, static_cast<unsigned long long>(size), 11);
    header.replace(kChecksumAt, 8, "        ");
    header[156] = '0';
    header.replace(kMarkAt, 5, "ustar");
    header.replace(kMarkAt + 6, 2, "00");
    unsigned sum = 0;
    for (const char c : header) sum += static_cast<unsigned char>(c);
    WriteOctal(header, kChecksumAt, sum, 6);
    header[kChecksumAt + 6] = '\0';
    return header;
}

}  // namespace

void Repacked::Add(int file, long long size, std::string_view front) {
    if (size == 0 || !questions_.Going()) return;
    size += static_cast<long long>(front.size());
    bool kept = file >= 0 && tar_.Write(HeaderOf(size)) && tar_.Write(front);
    kept = kept &&
           ReadBlocks(file, 0, [&](std::string_view bytes, off_t) { return tar_.Write(bytes); });
    const std::size_t over = static_cast<std::size_t>(size) % kBlock;
    kept = kept && (over == 0 || tar_.Write(std::string(kBlock - over, '\0')));
    if (!kept) questions_.Fail();
    if (tar_.Size() >= kPutAt) Finish();
}

void Repacked::Finish() {
    if (tar_.Size() == 0) return;
    if (!tar_.Write(std::string(2 * kBlock, '\0'))) questions_.Fail();
    questions_.PutUnpacked(tar_, place_);
    tar_ = Scratch();
}

}  // namespace maild
