// Inside attachments/: what the bytes of a file show it to be, whatever it is called.
//
// Known by the bytes themselves, each under the type that rules name it by:
//
//   application/x-dosexec          Windows and DOS programs and libraries (MZ)
//   application/x-executable       ELF and Mach-O, Java classes
//   application/x-ms-shortcut      LNK
//   text/x-script                  begins with #!, or with what makes a batch file
//   application/x-ole-storage      OLE: older Office, MSI, Outlook messages
//   application/x-office-encrypted Office with a password
//   application/x-office-macros    Office with macros
//   application/x-html-script      HTML or SVG with script, beside text/html and image/svg+xml
//   application/x-archive          any archive, compressed or disk image, beside its own type
//   application/x-iso9660-image, application/zip, application/x-7z-compressed, ...
//
// Beside these libmagic's type, where a rule asks for any.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace maild {

// When libmagic is asked, which costs up to a millisecond for a text: for no file; for all but
// texts without a script in them and archives, by what these begin with; for all.
enum class MagicUse { kNever, kNoTexts, kAll };

// Takes a file's bytes as they come.
class RealType {
  public:
    // Bytes at the start by which a type is known, and all that libmagic sees.
    static constexpr std::size_t kHead = 48 << 10;

    void Write(std::string_view bytes);
    // Whether enough has come to say what the file is, but for words in it.
    bool HeadWhole() const { return head_.size() >= kHead; }
    // Of what has come so far: whether it begins as an archive, or as a program that may have one
    // behind it.
    bool MayBeArchive() const {
        return BeginsArchive() != Sure::kNo || IsProgram() || head_.starts_with("#!");
    }
    // kYes: it must be readable as one. kMaybe: by bytes that other files may begin with.
    enum class Sure { kNo, kMaybe, kYes };
    Sure BeginsArchive() const;
    // Office with a password. To be asked behind the last byte, as Types.
    bool OfficeEncrypted() const { return ole_ && met_[kEncryptedPackage]; }
    // Of Windows, DOS or ELF.
    bool IsProgram() const;
    // Each once, in small letters.
    std::vector<std::string> Types(MagicUse magic) const;
    const std::string& Head() const { return head_; }

  private:
    enum Word { kEncryptedPackage, kVbaProject, kScript, kScriptLink, kHtml, kSvg, kWords };

    void Search(std::string_view bytes);
    bool Asks(MagicUse magic) const;

    std::string head_;
    std::string tail_;  // the last bytes, in which a word may have begun
    bool met_[kWords] = {};
    bool ole_ = false;
    long long size_ = 0;
};

// libmagic's type of a file that begins so; empty if it has none. Any thread: each has a handle of
// its own.
std::string MagicType(std::string_view head);

}  // namespace maild
