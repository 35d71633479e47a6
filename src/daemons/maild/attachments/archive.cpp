#include "daemons/maild/attachments/archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>

#include "daemons/maild/attachments/names.h"
#include "daemons/maild/attachments/reader.h"
#include "daemons/maild/attachments/zipheaders.h"
#include "daemons/maild/forms/archivelook.h"
#include "daemons/maild/forms/blocks.h"
#include "text/ascii.h"

namespace maild {

namespace {

// Beyond both, what is packed was made to be unpacked in vain.
constexpr long long kMostTimes = 1000;
constexpr long long kFreeOfRatio = 16LL << 20;
constexpr std::size_t kBlock = 65536;
constexpr long long kMostEmpty = 512;              // bytes of an archive without files
constexpr std::size_t kUnknown = ~std::size_t{0};  // of files

const char* KindOf(archive* reader) {
    switch (archive_format(reader) & ARCHIVE_FORMAT_BASE_MASK) {
        case ARCHIVE_FORMAT_ZIP:
            return "Zip";
        case ARCHIVE_FORMAT_7ZIP:
            return "7z";
        case ARCHIVE_FORMAT_RAR:
        case ARCHIVE_FORMAT_RAR_V5:
            return "RAR";
        default:
            return "Archive";
    }
}

// The kind of an open archive with something encrypted in it, as far as it was read; else null.
const char* EncryptedBy(archive* reader) {
    return archive_read_has_encrypted_entries(reader) > 0 ? KindOf(reader) : nullptr;
}

// "a.exe.gz" holds "a.exe", "a.tgz" "a.tar".
std::string NameInside(const std::string& path) {
    std::string name = path.substr(0, path.find(" in "));
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return name;
    const bool tar = name.substr(dot, 2) == ".t";
    name.resize(dot);
    return tar ? name + ".tar" : name;
}

// Whether nobody opens as a zip what is called so. A zip in such an archive may stand at its end.
bool IsCalledOtherwise(const std::string& path) {
    constexpr std::string_view kEndings[] = {".tar", ".tgz", ".gz",  ".bz2", ".xz",
                                             ".zst", ".7z",  ".rar", ".cab", ".iso",
                                             ".img", ".lzh", ".ar",  ".cpio"};
    const std::string name = LowerCase(path.substr(0, path.find(" in ")));
    return std::any_of(std::begin(kEndings), std::end(kEndings),
                       [&](std::string_view each) { return name.ends_with(each); });
}

std::string EncryptedKind(Scratch& file) {
    ArchiveLook look;
    const int descriptor = file.Rewind();
    if (descriptor < 0) return {};
    ReadBlocks(descriptor, 0, [&](std::string_view text, off_t) {
        for (const char c : text) look.Take(static_cast<unsigned char>(c));
        return true;
    });
    return look.Counts() ? look.Kind() : std::string();
}

}  // namespace

ArchiveLooker::ArchiveLooker(const ArchiveLimits& limits, Clock::time_point end, MagicUse magic,
                             Use use, UseMessage useMessage)
    : limits_(limits),
      end_(end),
      magic_(magic),
      use_(std::move(use)),
      useMessage_(std::move(useMessage)) {}

void ArchiveLooker::Stop(const std::string& why) {
    if (tooComplex_.empty()) tooComplex_ = why;
    going_ = false;
}

void ArchiveLooker::BeginAnew() {
    packed_ = bytes_ = 0;
    entries_ = 0;
    going_ = true;
}

void ArchiveLooker::NoteEncrypted(const std::string& kind) {
    if (encrypted_.empty()) encrypted_ = "Encrypted." + kind;
}

bool ArchiveLooker::Look(Spill& spill, Scratch& file, const std::string& path, int depth) {
    if (!going_) return false;
    const Utf8Locale utf8;
    const int descriptor = file.Rewind();
    const SevenZipClaims claims = ClaimsTo(descriptor, limits_.maxEntries);
    const Reader reader = MakeReader(claims);
    if (descriptor < 0 || reader == nullptr) {
        Stop("an archive can't be stored to be looked into");
        return false;
    }
    if (depth == 1) packed_ += file.Size();
    if (claims == SevenZipClaims::kTooMany) {
        Stop("more files in archives than MaxArchiveEntries");
        return false;
    }
    if (claims == SevenZipClaims::kUnreadable ||
        archive_read_open_fd(reader.get(), descriptor, kBlock) != ARCHIVE_OK) {
        // One that isn't open can't be asked for what is encrypted.
        Fail(nullptr, spill, file, false, path, depth);
        return false;
    }
    const bool macros = Entries(reader.get(), spill, file, path, depth);
    // What unpacked it has forgotten all: the engine may take its time.
    if (depth == 1) place_.GiveBack();
    return macros;
}

// A zip that is packed as a whole: to be looked at from both sides it must be a file.
bool ArchiveLooker::Unpacked(Spill& spill, Scratch& file, const std::string& path, int depth) {
    const int descriptor = file.Rewind();
    const Reader reader = MakeReader(Formats::kPackedAlone);
    if (descriptor < 0 || reader == nullptr ||
        archive_read_open_fd(reader.get(), descriptor, kBlock) != ARCHIVE_OK) {
        Stop("an archive can't be stored to be looked into");
        return false;
    }
    return Entries(reader.get(), spill, file, path, depth);
}

// What can't be read, or not to its end. `encrypted`: what libarchive has met that is; null:
// nothing.
void ArchiveLooker::Fail(const char* encrypted, Spill& spill, Scratch& file, bool listed,
                         const std::string& path, int depth) {
    const std::string kind = EncryptedKind(file);
    if (!kind.empty()) encrypted = kind.c_str();
    if (encrypted != nullptr) NoteEncrypted(encrypted);
    // Of one whose list of files is encrypted there is nothing else to be read.
    if (!listed && encrypted != nullptr) return;
    if (!listed && !spill.SurelyArchive() && !(spill.Called() && HoldsArchiveMark(file.Rewind())))
        return;
    innerUnreadable_ = innerUnreadable_ || depth > 1;
    if (tooComplex_.empty()) tooComplex_ = "an archive can't be read: " + path;
}

bool ArchiveLooker::Entries(archive* from, Spill& spill, Scratch& file, const std::string& path,
                            int depth) {
    bool macros = false;
    std::set<std::string> names;
    std::size_t files = 0;
    for (bool listed = false; going_; listed = true) {
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(from, &entry);
        const bool plain =
            (archive_format(from) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_RAW &&
            archive_filter_count(from) <= 1;
        if (!listed && IsZip(from) && archive_filter_count(from) > 1)
            return Unpacked(spill, file, path, depth);
        if (result == ARCHIVE_EOF && listed) break;
        if (result == ARCHIVE_EOF && !plain && file.Size() <= kMostEmpty) break;
        // A larger archive without files is one that somebody else may find files in.
        if (result == ARCHIVE_EOF || result < ARCHIVE_WARN || plain) {
            Fail(EncryptedBy(from), spill, file, listed, path, depth);
            break;
        }
        if (!Counted(depth)) break;
        ++files;
        macros = Entry(from, entry, path, depth, names, !IsOfCommonKind(from)) || macros;
    }
    if (const char* const kind = EncryptedBy(from)) NoteEncrypted(kind);
    // Whatever it begins as, readers of zips find the one at its end.
    const bool zip = IsZip(from);
    if (going_ && (zip || (!IsCalledOtherwise(path) && EndsAsZip(file.Rewind()))))
        macros = BothSides(file, path, depth, names, zip ? files : kUnknown) || macros;
    return macros;
}

// Whether one more file may be looked at.
bool ArchiveLooker::Counted(int depth) {
    if (depth > limits_.maxDepth) {
        Stop("archives deeper than MaxArchiveDepth");
    } else if (++entries_ > limits_.maxEntries) {
        Stop("more files in archives than MaxArchiveEntries");
    } else if (Clock::now() > end_) {
        Stop("archives were not looked into in time");
    }
    return going_;
}

// True if by its name it is what Office keeps macros in.
bool ArchiveLooker::Entry(archive* from, archive_entry* entry, const std::string& path, int depth,
                          std::set<std::string>& listed, bool asked) {
    std::string shown;
    Attachment member;
    const auto add = [&](const char* name) {
        if (name == nullptr || *name == '\0') return;
        listed.insert(name);
        if (shown.empty()) shown = ShownName(name);
        for (std::string& each : ReadingsOfName(name)) {
            if (std::find(member.names.begin(), member.names.end(), each) == member.names.end())
                member.names.push_back(std::move(each));
        }
    };
    const bool single = (archive_format(from) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_RAW;
    if (single) add(NameInside(path).c_str());
    const char* const stored = archive_entry_pathname(entry);
    if (!single || (stored != nullptr && std::string_view(stored) != "data")) add(stored);
    add(archive_entry_pathname_utf8(entry));
    const std::string inner = (shown.empty() ? "a file without a name" : shown) + " in " + path;

    // A folder may have bytes, too: it is one by what is said in one place.
    const bool message = CalledMessage(member.names);
    Spill spill(CalledArchive(member.names, ""), message || (asked && unpacked_));
    const bool encrypted = archive_entry_is_encrypted(entry) > 0;
    if (encrypted) {
        NoteEncrypted(KindOf(from));
        member.size = archive_entry_size(entry);
    } else if (!Read(from, spill)) {
        if (archive_read_has_encrypted_entries(from) > 0 && archive_entry_is_encrypted(entry) > 0) {
            NoteEncrypted(KindOf(from));
        } else {
            innerUnreadable_ = innerUnreadable_ || depth > 1;
            if (tooComplex_.empty()) tooComplex_ = "a file in an archive can't be read: " + inner;
        }
    }
    bool macros = false;
    if (!encrypted) {
        member.size = spill.Size();
        if (Scratch* const file = spill.Finish()) {
            if (asked && unpacked_) unpacked_->Add(file->Rewind(), file->Size());
            if (message || spill.MayBeArchive()) macros = Look(spill, *file, inner, depth + 1);
            if (message && going_) {
                // It may hold large archives itself: nobody waits for a place while he has one.
                place_.GiveBack();
                useMessage_(file->Rewind(), inner);
            }
        }
        lookedInto_ = spill.Type().BeginsArchive() == RealType::Sure::kYes;
        member.types = spill.Type().Types(magic_);
        if (macros) member.types.emplace_back("application/x-office-macros");
        if (spill.Type().OfficeEncrypted()) NoteEncrypted("Office");
    }
    if (archive_entry_filetype(entry) == AE_IFDIR && spill.Size() == 0 && !encrypted) return false;
    use_(member, inner);
    return std::any_of(member.names.begin(), member.names.end(), [](const std::string& name) {
        return name == "vbaproject.bin" || name.ends_with("/vbaproject.bin");
    });
}

// False if it can't be read to its end.
bool ArchiveLooker::Read(archive* from, Spill& spill) {
    static thread_local std::array<char, kBlock> block;
    for (;;) {
        const la_ssize_t count = archive_read_data(from, block.data(), block.size());
        if (count == 0) break;
        if (count < 0) return false;
        spill.Write({block.data(), static_cast<std::size_t>(count)});
        bytes_ += count;
        if (bytes_ > limits_.maxBytes) {
            Stop("more bytes in archives than MaxArchiveBytes");
            return false;
        }
        if (bytes_ > kFreeOfRatio && bytes_ / kMostTimes > packed_) {
            Stop("an archive that unpacks to a thousand times its size");
            return false;
        }
        const bool large = bytes_ > kFreeOfRatio;
        if (Clock::now() > end_ || (large && !place_.Take(end_))) {
            Stop("archives were not looked into in time");
            return false;
        }
    }
    return true;
}

}  // namespace maild
