// Inside attachments/: the section of a message's walk that asks the rules about each attachment.
//
// Attachments are parts with a name, what is marked as one, what is no text, and what is declared a
// text but is a program or an archive by its bytes; also files in a text by uuencode or yEnc, and
// those in TNEF. The first rule that matches an attachment decides about it, and the strongest of
// these about the message; so an attachment that may pass doesn't let another one through.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "daemons/maild/antivirus/calendarfiles.h"
#include "daemons/maild/antivirus/filesintext.h"
#include "daemons/maild/antivirus/tnef.h"
#include "daemons/maild/attachments/archive.h"
#include "daemons/maild/attachments/rule.h"
#include "daemons/maild/attachments/spill.h"
#include "daemons/maild/coding/readings.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

class AttachmentFilter final : public PartSink {
  public:
    // The rules outlive it. It may see several walks of one message. `nesting`: in so many messages
    // that are files of others.
    AttachmentFilter(const AttachmentRules& rules, ArchiveLooker::Clock::time_point end,
                     int nesting = 0);

    void AskThrough(Questions* questions) override { engine_ = questions; }
    void Begin(const Part& part) override;
    void Data(std::span<const std::byte> bytes) override;
    void End(const Part& part) override;
    void Done(const WalkResult& result) override;

    // Behind the walk: of each attachment that a rule matches, once.
    const std::vector<Finding>& Findings() const { return findings_; }
    // What is encrypted, and why not all was looked at; empty if nothing, and if all was.
    const std::string& Encrypted() const { return archives_.Encrypted(); }
    const std::string& TooComplex() const {
        return tooComplex_.empty() ? archives_.TooComplex() : tooComplex_;
    }

  private:
    void LookAtLeaf(const Part& part);
    void Look(Spill& spill, const Part& part);
    void LookAtReadings(const Part& part);
    void LookAtHidden(int file);
    void LookWithin(int file, const std::string& path);
    void BeginHidden(const Part& part);
    void WriteText(std::string_view text);
    void EndText();
    void EndTnef();
    void AskByName(const std::vector<std::string>& names);
    void Ask(const Attachment& attachment, const std::string& what);
    bool Counts(Action action) const;

    const AttachmentRules& rules_;
    const ArchiveLooker::Clock::time_point end_;
    const int nesting_;
    const MagicUse magic_;
    ArchiveLooker archives_;
    Questions* engine_ = nullptr;
    std::optional<Repacked> messages_;  // in files of the part that is open, for the engine
    std::optional<Questions> hidden_;   // files in parts, which are asked about like others
    std::unique_ptr<FilesInText> text_;
    std::unique_ptr<CalendarFiles> calendar_;
    // Of the one of both that puts its files now.
    const std::vector<std::string>* putBy_ = nullptr;
    std::set<std::string> askedByName_;  // files in the text that is open
    std::unique_ptr<TnefReader> tnef_;
    std::unique_ptr<Spill> leaf_;     // the one that is open
    std::vector<std::string> names_;  // of the part that is asked about, as ReadingsOfName
    const Part* part_ = nullptr;      // the same
    long long decodedAgain_ = 0;      // bytes
    bool again_ = false;              // this walk isn't the first one
    std::vector<Finding> findings_;
    std::size_t placed_ = 0;  // so many of them have their ranges
    std::string tooComplex_;
};

}  // namespace maild
