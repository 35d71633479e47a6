// Inside attachments/: what lies in archives, by libarchive, archives in archives too, within
// bounds. What can't be read within them is never taken for nothing.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "daemons/maild/antivirus/repacked.h"
#include "daemons/maild/attachments/large.h"
#include "daemons/maild/attachments/rule.h"
#include "daemons/maild/attachments/spill.h"

struct archive;
struct archive_entry;

namespace maild {

// All archives of one message; one thread.
class ArchiveLooker {
  public:
    using Clock = std::chrono::steady_clock;
    // Told of each file, `path` for people: "a.exe in b.zip in c.zip".
    using Use = std::function<void(const Attachment& file, const std::string& path)>;

    // Gets the descriptor of a file that is called a message.
    using UseMessage = std::function<void(int file, const std::string& path)>;

    // `magic`: what libmagic is asked about.
    ArchiveLooker(
        const ArchiveLimits& limits, Clock::time_point end, MagicUse magic, Use use,
        UseMessage useMessage = [](int, const std::string&) {});

    // `file` is what a Finish gave. `path` is what it is called, for people. True if there is an
    // Office document with macros by what lies in it.
    bool Look(Spill& spill, Scratch& file, const std::string& path) {
        const bool macros = Look(spill, file, path, 1);
        if (unpacked_) unpacked_->Finish();
        return macros;
    }
    // Null: the engine is not asked about anything. `place`: of the part that is looked at.
    void AskThrough(Questions* questions, const std::string& place) {
        questions_ = questions;
        asksFor_ = place;
        unpacked_.reset();
        if (questions != nullptr) unpacked_.emplace(*questions, place);
    }
    // Bounds count from here on: another walk over the message.
    void BeginAnew();
    void NoteEncrypted(const std::string& kind);
    // Whether an archive in another one could not be read.
    bool InnerUnreadable() const { return innerUnreadable_; }
    // What could not be read, or says two things, is no archive. Bounds that were met stay.
    void ForgetUnreadable() {
        if (going_) tooComplex_.clear();
    }

    // What is encrypted: "Encrypted.Zip"; empty: nothing was.
    const std::string& Encrypted() const { return encrypted_; }
    // Why not all was looked at; empty: all was.
    const std::string& TooComplex() const { return tooComplex_; }

  private:
    bool Look(Spill& spill, Scratch& file, const std::string& path, int depth);
    bool Entries(archive* from, Spill& spill, Scratch& file, const std::string& path, int depth);
    // `asked`: the engine is asked about the file.
    bool Entry(archive* from, archive_entry* entry, const std::string& path, int depth,
               std::set<std::string>& listed, bool asked);
    bool Unpacked(Spill& spill, Scratch& file, const std::string& path, int depth);
    bool BothSides(Scratch& file, const std::string& path, int depth, std::set<std::string>& listed,
                   std::size_t files);
    bool Unlisted(Scratch& file, const std::string& path, int depth,
                  const std::vector<long long>& places, std::set<std::string>& listed);
    void AskAboutZips(Scratch& file);
    bool Counted(int depth);
    bool Read(archive* from, Spill& spill);
    void Fail(const char* encrypted, Spill& spill, Scratch& file, bool listed,
              const std::string& path, int depth);
    void Stop(const std::string& why);

    const ArchiveLimits limits_;
    const Clock::time_point end_;
    const MagicUse magic_;
    const Use use_;
    const UseMessage useMessage_;
    Questions* questions_ = nullptr;
    std::string asksFor_;
    std::optional<Repacked> unpacked_;  // of all archives in each other
    long long packed_ = 0;              // bytes of the archives themselves, the outermost ones
    long long bytes_ = 0;
    LargePlace place_;
    int entries_ = 0;
    long long headers_ = 0;  // of zips
    int names_ = 0;          // that stand in these alone
    bool going_ = true;
    bool innerUnreadable_ = false;  // the same of an archive in another one
    bool lookedInto_ = false;       // the last file was an archive itself
    std::string encrypted_;
    std::string tooComplex_;
};

}  // namespace maild
