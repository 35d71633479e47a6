// Archives and messages, made for tests.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "daemons/maild/walk/walk.h"
#include "platform/file.h"
#include "text/base64.h"

struct Packed {
    std::string name;
    std::string data;
};

// An archive in libarchive's format ("zip", "7zip", "ustar", "iso9660", "raw") and filter ("none",
// "gzip", "bzip2", "xz", "zstd"); with a password its files are encrypted.
inline std::string Pack(const char* format, const char* filter, const std::vector<Packed>& files,
                        const char* password = nullptr, const char* options = nullptr) {
    archive* const made = archive_write_new();
    EXPECT_EQ(archive_write_set_format_by_name(made, format), ARCHIVE_OK);
    if (std::string(filter) != "none") archive_write_add_filter_by_name(made, filter);
    if (password != nullptr) {
        EXPECT_EQ(archive_write_set_options(made, "zip:encryption=traditional"), ARCHIVE_OK);
        archive_write_set_passphrase(made, password);
    }
    if (options != nullptr) {
        EXPECT_EQ(archive_write_set_options(made, options), ARCHIVE_OK);
    }
    archive_write_set_bytes_in_last_block(made, 1);
    std::string out(64 << 20, '\0');
    std::size_t used = 0;
    EXPECT_EQ(archive_write_open_memory(made, out.data(), out.size(), &used), ARCHIVE_OK);
    for (const Packed& file : files) {
        archive_entry* const entry = archive_entry_new();
        archive_entry_set_pathname(entry, file.name.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(file.data.size()));
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        EXPECT_EQ(archive_write_header(made, entry), ARCHIVE_OK) << archive_error_string(made);
        EXPECT_EQ(archive_write_data(made, file.data.data(), file.data.size()),
                  static_cast<la_ssize_t>(file.data.size()));
        archive_entry_free(entry);
    }
    EXPECT_EQ(archive_write_close(made), ARCHIVE_OK) << archive_error_string(made);
    archive_write_free(made);
    out.resize(used);
    return out;
}
inline std::string Zip(const std::vector<Packed>& files) { return Pack("zip", "none", files); }

// A message with these attachments, in base64.
inline std::string Mail(const std::vector<Packed>& files,
                        const std::string& type = "application/octet-stream") {
    std::string text = "Subject: a\nContent-Type: multipart/mixed; boundary=b\n\n--b\n\nhello\n";
    for (const Packed& file : files) {
        text += "--b\nContent-Type: " + type + "\nContent-Transfer-Encoding: base64\n";
        if (!file.name.empty())
            text += "Content-Disposition: attachment; filename=\"" + file.name + "\"\n";
        text += "\n";
        const std::string coded = Base64Encode(file.data);
        for (std::size_t i = 0; i < coded.size(); i += 76) text += coded.substr(i, 76) + "\n";
    }
    return text + "--b--\n";
}

// Has the sink see the message.
inline void Show(const std::string& message, maild::PartSink& sink) {
    platform::File file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file.Write(message.data(), message.size()));
    maild::PartSink* const sinks[] = {&sink};
    maild::WalkMessage(file.Descriptor(), maild::Dots::kPlain, {}, sinks);
}
