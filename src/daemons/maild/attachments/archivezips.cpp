// What lies in a zip, for readers that see it in different ways.
#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include "daemons/maild/antivirus/zipbehind.h"
#include "daemons/maild/attachments/archive.h"
#include "daemons/maild/attachments/names.h"
#include "daemons/maild/attachments/reader.h"
#include "daemons/maild/attachments/zipheaders.h"
#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

constexpr std::size_t kBlock = 65536;
// Of a zip: two, and once more where it is stored in another.
constexpr long long kHeadersOfAFile = 4;

}  // namespace

// Several zips in one file are several files for the engine.
void ArchiveLooker::AskAboutZips(Scratch& file) {
    if (questions_ == nullptr) return;
    ZipBehind zips;
    const bool read = ReadBlocks(file.Rewind(), 0,
                                 [&](std::string_view text, off_t) { return zips.Write(text); });
    if (!read) questions_->Fail();
    zips.Finish(*questions_, asksFor_);
}

// A zip tells all twice: libarchive reads what the directory at its end lists, under the names that
// stand before the files; readers that repair, or that begin at the front, find others.
bool ArchiveLooker::BothSides(Scratch& file, const std::string& path, int depth,
                              std::set<std::string>& listed, std::size_t files) {
    AskAboutZips(file);
    ZipHeaders headers;
    const bool read = ForEachZipHeader(file.Rewind(), [&](const ZipHeader& header) {
        headers.Take(header);
        bool bounded = ++headers_ <= kHeadersOfAFile * limits_.maxEntries;
        for (const std::string& name : header.names) {
            if (!bounded || !listed.insert(name).second) continue;
            bounded = ++names_ <= limits_.maxEntries;
            if (bounded)
                use_({ReadingsOfName(name), std::nullopt, {}, 0}, ShownName(name) + " in " + path);
        }
        if (!bounded) Stop("more files in archives than MaxArchiveEntries");
        return bounded && Clock::now() < end_;
    });
    if (!read && going_) Stop("archives were not looked into in time");
    if (headers.Contradicts() && tooComplex_.empty())
        tooComplex_ = "a zip that says two things of a file: " + path;
    return !headers.Plain(files) && Unlisted(file, path, depth, headers.Files(), listed);
}

// Reads the files of a zip as they stand there, whatever its directory lists.
bool ArchiveLooker::Unlisted(Scratch& file, const std::string& path, int depth,
                             const std::vector<long long>& places, std::set<std::string>& listed) {
    bool macros = false;
    std::set<long long> left(places.begin(), places.end());
    while (going_ && !left.empty()) {
        const long long from = *left.begin();
        left.erase(left.begin());
        const int descriptor = file.Rewind();
        const Reader reader = MakeReader(Formats::kZipAsItStands);
        if (descriptor < 0 || lseek(descriptor, from, SEEK_SET) != from || reader == nullptr) {
            Stop("an archive can't be stored to be looked into");
            break;
        }
        if (archive_read_open_fd(reader.get(), descriptor, kBlock) != ARCHIVE_OK) continue;
        long long archiveAt = -1;
        for (archive_entry* entry = nullptr; going_;) {
            const int result = archive_read_next_header(reader.get(), &entry);
            const long long at = from + archive_read_header_position(reader.get());
            // What an archive holds in it was looked at when it was.
            if (archiveAt >= 0 && archiveAt < at)
                left.erase(left.upper_bound(archiveAt), left.lower_bound(at));
            if (result == ARCHIVE_EOF || result < ARCHIVE_WARN) break;
            left.erase(at);
            if (!Counted(depth)) break;
            lookedInto_ = false;
            // The engine goes by the directory.
            macros = Entry(reader.get(), entry, path, depth, listed, true) || macros;
            archiveAt = lookedInto_ ? at : -1;
        }
    }
    return macros;
}

}  // namespace maild
