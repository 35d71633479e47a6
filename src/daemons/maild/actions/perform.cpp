#include "daemons/maild/actions/perform.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "daemons/maild/actions/edits.h"
#include "daemons/maild/actions/notice.h"
#include "daemons/maild/actions/tags.h"
#include "text/mailbox.h"

namespace maild {

namespace {

constexpr char kCantBeTakenOut[] = "; it can't be taken out, so the message is held back";

bool Within(const Range& inner, const Range& outer) {
    return outer.begin <= inner.begin && inner.end <= outer.end;
}

// Each part once, with all that was said of it; none that goes with another one.
std::vector<Removal> RemovalsOf(const std::vector<Finding>& findings, const PartMap& parts) {
    std::vector<Removal> all;
    for (const Finding& each : findings) {
        if (each.action != Action::kRemove) continue;
        const PlacedPart* part = parts.Find(each);
        const auto known = std::find_if(
            all.begin(), all.end(), [&](const Removal& removal) { return removal.part == part; });
        if (known == all.end()) {
            all.push_back({part, {&each}});
        } else {
            known->why.push_back(&each);
        }
    }
    std::vector<Removal> outermost;
    for (const Removal& each : all) {
        const bool within = std::any_of(all.begin(), all.end(), [&](const Removal& other) {
            return other.part != each.part && Within(each.part->whole, other.part->whole);
        });
        if (!within) outermost.push_back(each);
    }
    return outermost;
}

class Performing {
  public:
    Performing(const Stored& message, const std::vector<Finding>& findings,
               const Decision& decision, const PartMap& parts, quarantine::Quarantine& store,
               const quarantine::Limits& limits)
        : message_(message),
          findings_(findings),
          decision_(decision),
          parts_(parts),
          store_(store),
          limits_(limits),
          dots_(message.transfer == Transfer::kData ? Dots::kStuffed : Dots::kPlain) {}

    Done Run() {
        const bool delivers = Delivers(decision_.action);
        const bool removes = delivers && Any(Action::kRemove);
        const bool changes = removes || (delivers && Any(Action::kTag));
        const bool holds = decision_.action == Action::kQuarantine;
        if (!holds && !changes) return {};
        file_ = platform::File(
            open(message_.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        struct stat info {};
        if (!file_ || fstat(file_.Descriptor(), &info) != 0) return Fail("can't read the message");
        size_ = info.st_size;
        std::string why;
        if ((holds || removes) && !Keep(why)) return Fail("can't keep the message: " + why);
        if (!changes) return done_;
        Edits edits;
        if (!Prepare(edits)) return Fail("can't read the message");
        if (!ReplaceStored(message_.path, file_.Descriptor(), edits, why)) return Fail(why);
        return done_;
    }

  private:
    bool Any(Action action) const {
        return std::any_of(findings_.begin(), findings_.end(),
                           [action](const Finding& each) { return each.action == action; });
    }

    // What is put off comes again, and is kept then.
    Done Fail(std::string why) {
        std::string complaint;
        if (!done_.keptAs.empty()) store_.Delete(done_.keptAs, complaint);
        return {false, std::move(why), {}};
    }

    bool Keep(std::string& why) {
        quarantine::KeptMessage kept;
        kept.sender = Mailbox(message_.sender);
        kept.recipients = message_.recipients;
        kept.peer = message_.peer;
        kept.helo = message_.helo;
        kept.logId = message_.logId;
        kept.verdict = Word(decision_.action);
        const Finding* by = decision_.by;
        if (by != nullptr) {
            kept.section = Word(by->section);
            kept.rule = by->rule;
            kept.reason = by->reason;
        }
        if (Delivers(decision_.action)) kept.state = quarantine::state::kOriginal;
        const std::optional<std::string> id =
            store_.Keep(file_.Descriptor(), dots_, std::move(kept), limits_, why);
        if (id) done_.keptAs = *id;
        return id.has_value();
    }

    bool Prepare(Edits& edits) {
        // The tag's headers stand in front of those of a text that takes the message's place.
        if (Any(Action::kTag) &&
            !AddTag(TagOf(findings_), parts_.Message(), file_.Descriptor(), dots_, edits))
            return false;
        const std::vector<Removal> removals = RemovalsOf(findings_, parts_);
        return std::all_of(removals.begin(), removals.end(), [&](const Removal& each) {
            return AddRemoval(each, done_.keptAs, file_.Descriptor(), size_, dots_, edits);
        });
    }

    const Stored& message_;
    const std::vector<Finding>& findings_;
    const Decision& decision_;
    const PartMap& parts_;
    quarantine::Quarantine& store_;
    const quarantine::Limits& limits_;
    const Dots dots_;
    platform::File file_;
    long long size_ = 0;
    Done done_;
};

}  // namespace

void HoldBackWhatStays(std::vector<Finding>& findings, const PartMap& parts, Transfer transfer) {
    for (Finding& each : findings) {
        if (each.action != Action::kRemove) continue;
        const PlacedPart* part = parts.Find(each);
        if (part == nullptr || part->fixed || transfer == Transfer::kUnknown) {
            each.action = Action::kQuarantine;
            if (!each.log.empty()) each.log += kCantBeTakenOut;
        }
    }
}

Done Perform(const Stored& message, const std::vector<Finding>& findings, const Decision& decision,
             const PartMap& parts, quarantine::Quarantine& store,
             const quarantine::Limits& limits) {
    return Performing(message, findings, decision, parts, store, limits).Run();
}

}  // namespace maild
