// Inside maild/: looks at the bytes of one archive as they come, for what is encrypted in it
// (encrypted.h says what is recognised).
#pragma once

#include <cstdint>
#include <string>

class ArchiveLook {
  public:
    void Take(unsigned char byte);
    // Behind the last byte: the kind of archive if there is anything encrypted in it, or empty.
    std::string Kind() const;
    bool Counts() const { return type_ != Type::kPdf; }
    bool Whole() const;

  private:
    enum class Type { kUnknown, kZip, kSevenZip, kRar4, kRar5, kPdf };

    void Recognise();
    void TakeZip(unsigned char byte);
    bool RarHeadersEncrypted() const;
    bool Rar4FileEncrypted() const;

    static constexpr std::size_t kHead = 256;
    Type type_ = Type::kUnknown;
    std::uint64_t count_ = 0;
    std::uint64_t last_ = 0;  // the last eight bytes, the newest lowest
    std::string head_;        // the first kHead bytes
    // zip:
    std::string header_;  // a file's header, behind its mark
    bool inHeader_ = false;
    std::uint64_t encrypted_ = 0;
    std::uint64_t plain_ = 0;
    // 7z: where its header begins; PDF, 7z: whether the mark was met
    std::uint64_t header7z_ = 0;
    bool met_ = false;
};
