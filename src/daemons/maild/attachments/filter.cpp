#include "daemons/maild/attachments/filter.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "daemons/maild/antivirus/doubtful.h"
#include "daemons/maild/attachments/zipheaders.h"
#include "daemons/maild/forms/blocks.h"
#include "daemons/maild/verdict/ruled.h"
#include "daemons/maild/walk/walk.h"

namespace maild {

namespace {

// Of parts that are read in several ways, all of them together.
constexpr long long kMostDecodedAgain = 256LL << 20;
constexpr std::size_t kMostFindings = 100;
constexpr int kMostNesting = 3;

bool ShowsOtherThanText(const RealType& type) {
    return type.BeginsArchive() == RealType::Sure::kYes || type.IsProgram() ||
           type.OfficeEncrypted();
}

std::vector<std::string> ReadingsOf(const std::vector<std::string>& names) {
    std::vector<std::string> readings;
    for (const std::string& name : names) {
        for (std::string& each : ReadingsOfName(name)) {
            if (std::find(readings.begin(), readings.end(), each) == readings.end())
                readings.push_back(std::move(each));
        }
    }
    return readings;
}

// Whether it is an archive of which the list of its files is missing, that stands at its end:
// nobody opens one.
bool LacksItsEnd(Spill& spill) {
    Scratch* const file = spill.Finish();
    if (file == nullptr) return false;
    const std::string_view head = spill.Type().Head();
    if (head.starts_with("PK\3\4")) return IsBeginningOfZip(file->Rewind());
    constexpr std::string_view kSevenZip = "7z\xBC\xAF\x27\x1C";
    constexpr std::size_t kListAt = 12;  // where it stands, and how long it is
    if (!head.starts_with(kSevenZip) || head.size() < 32) return head.starts_with(kSevenZip);
    std::uint64_t end = 32;
    for (std::size_t i = 0; i < 6; ++i) {
        for (const std::size_t at : {kListAt, kListAt + 8})
            end += std::uint64_t{static_cast<unsigned char>(head[at + i])} << 8 * i;
    }
    return end > static_cast<std::uint64_t>(spill.Size());
}

std::string Shown(const Part& part) {
    return part.names.empty() ? "a part of type " + part.type : part.names.front();
}

}  // namespace

AttachmentFilter::AttachmentFilter(const AttachmentRules& rules,
                                   ArchiveLooker::Clock::time_point end, int nesting)
    : rules_(rules),
      end_(end),
      nesting_(nesting),
      magic_(rules.AskForMagic()),
      archives_(
          rules.archives, end, magic_,
          [this](const Attachment& file, const std::string& path) { Ask(file, path); },
          [this](int file, const std::string& path) { LookWithin(file, path); }) {}

void AttachmentFilter::Begin(const Part& part) {
    leaf_.reset();
    if (part.kind != PartKind::kLeaf) return;
    names_ = ReadingsOf(part.names);
    leaf_ = std::make_unique<Spill>(CalledArchive(names_, part.type));
    part_ = &part;
    archives_.AskThrough(engine_, part.place);
    messages_.reset();
    if (engine_ != nullptr) messages_.emplace(*engine_, part.place);
    BeginHidden(part);
}

void AttachmentFilter::BeginHidden(const Part& part) {
    text_.reset();
    calendar_.reset();
    tnef_.reset();
    if (!hidden_) {
        struct stat info {};
        const long long size = fstat(part.source.file, &info) == 0 ? info.st_size : 0;
        hidden_.emplace(
            [this](int file, long long) {
                LookAtHidden(file);
                return ScanResult{ScanOutcome::kClean, ""};
            },
            size);
    }
    if (part.isText || part.type.starts_with("message/") || part.type.starts_with("multipart/"))
        text_ = std::make_unique<FilesInText>(*hidden_, part.place);
    if (CalendarFiles::MayBe(part))
        calendar_ = std::make_unique<CalendarFiles>(*hidden_, part.place);
}

void AttachmentFilter::Data(std::span<const std::byte> bytes) {
    if (leaf_ == nullptr) return;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    // The walk hands on the first bytes in one piece, as long as the part has so many.
    if (leaf_->Size() == 0 && text.starts_with(TnefReader::kMark))
        tnef_ = std::make_unique<TnefReader>(*hidden_, part_->place);
    leaf_->Write(text);
    WriteText(text);
    if (tnef_ != nullptr) tnef_->Write(text);
}

void AttachmentFilter::WriteText(std::string_view text) {
    if (text_ != nullptr) {
        putBy_ = &text_->Names();
        text_->Write(text);
    }
    if (calendar_ != nullptr) {
        putBy_ = &calendar_->Names();
        calendar_->Write(text);
    }
    putBy_ = nullptr;
}

void AttachmentFilter::End(const Part& part) {
    part_ = &part;
    // A forwarded message: its parts are asked about by themselves.
    const bool named = !part.names.empty() || part.disposition == "attachment";
    if (part.kind == PartKind::kMessage && named) {
        const Range& body = part.source.body;
        Ask({ReadingsOf(part.names), part.type, {"message/rfc822"}, body.end - body.begin},
            Shown(part));
    }
    if (part.kind == PartKind::kLeaf && leaf_ != nullptr) LookAtLeaf(part);
    // Another form of the message is not what lies in the file.
    for (; placed_ < findings_.size(); ++placed_) {
        findings_[placed_].range = again_ ? kNowhere : part.whole;
    }
}

void AttachmentFilter::LookAtLeaf(const Part& part) {
    EndText();
    EndTnef();
    const bool before = archives_.TooComplex().empty();
    Look(*leaf_, part);
    const bool cut = before && part.cutOff && !archives_.InnerUnreadable() && LacksItsEnd(*leaf_);
    // An archive that was read, and whose lines end anywhere, is none to who decodes each by
    // itself.
    const bool readable =
        archives_.TooComplex().empty() && leaf_->Type().BeginsArchive() == RealType::Sure::kYes;
    leaf_.reset();
    if (part.oddCoding) LookAtReadings(part);
    if (messages_) messages_->Finish();
    if ((readable && part.cutGroups) || cut) archives_.ForgetUnreadable();
}

void AttachmentFilter::EndText() {
    if (text_ != nullptr) {
        putBy_ = &text_->Names();
        text_->Finish();
        AskByName(*putBy_);
    }
    if (calendar_ != nullptr) {
        putBy_ = &calendar_->Names();
        calendar_->Finish();
        AskByName(*putBy_);
    }
    putBy_ = nullptr;
    text_.reset();
    calendar_.reset();
}

void AttachmentFilter::EndTnef() {
    if (tnef_ == nullptr) return;
    tnef_->Finish();
    AskByName(tnef_->AllNames());
    tnef_.reset();
}

// Files that are equal are put once, whatever they are called.
void AttachmentFilter::AskByName(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (askedByName_.insert(name).second)
            Ask({ReadingsOfName(name), std::nullopt, {}, 0}, name + " in " + Shown(*part_));
    }
    askedByName_.clear();
}

void AttachmentFilter::Done(const WalkResult&) {
    again_ = true;
    decodedAgain_ = 0;
    archives_.BeginAnew();
    if (hidden_ && hidden_->TooMany()) tooComplex_ = "more files in its parts than are looked at";
    hidden_.reset();
}

void AttachmentFilter::Look(Spill& spill, const Part& part) {
    const RealType& type = spill.Type();
    const bool plain = part.isText && part.names.empty();
    if (plain && !ShowsOtherThanText(type)) return;
    bool macros = false;
    if (Scratch* const file = spill.Finish()) macros = archives_.Look(spill, *file, Shown(part));
    if (type.OfficeEncrypted()) archives_.NoteEncrypted("Office");
    Attachment attachment{names_, part.type, type.Types(magic_), spill.Size()};
    if (macros) attachment.types.emplace_back("application/x-office-macros");
    Ask(attachment, Shown(part));
}

// Readers undo its coding in different ways: each of them has its file.
void AttachmentFilter::LookAtReadings(const Part& part) {
    for (const Reading& reading : ReadingsOf(part.coding, part.oddHeaders)) {
        decodedAgain_ += part.source.body.end - part.source.body.begin;
        if (decodedAgain_ > kMostDecodedAgain) {
            tooComplex_ = "more readings of its parts than are looked at";
            return;
        }
        Scratch decoded;
        Spill spill(CalledArchive(names_, part.type));
        // Files within a body that is declared to be one.
        if (reading.coding == Coding::kPlain)
            text_ = std::make_unique<FilesInText>(*hidden_, part.place);
        const bool whole = DecodeBody(part.source, reading, decoded) && decoded.Rewind() >= 0 &&
                           ReadBlocks(decoded.Rewind(), 0, [&](std::string_view text, off_t) {
                               spill.Write(text);
                               WriteText(text);
                               return true;
                           });
        EndText();
        if (!whole) {
            tooComplex_ = "a part can't be read in the ways that readers may";
            return;
        }
        if (spill.Size() > 0) Look(spill, part);
    }
}

// A file within the part that is open: in its text, or in the container that it is, or in both.
void AttachmentFilter::LookAtHidden(int file) {
    std::vector<std::string> names;
    if (putBy_ != nullptr && !putBy_->empty()) names.push_back(putBy_->back());
    if (putBy_ == nullptr && tnef_ != nullptr) names = tnef_->Names();
    askedByName_.insert(names.begin(), names.end());
    const std::string name = names.empty() ? "" : names.front();
    Attachment attachment{ReadingsOf(names), std::nullopt, {}, 0};
    const bool message = CalledMessage(attachment.names);
    Spill spill(CalledArchive(attachment.names, ""), message);
    const bool read = ReadBlocks(file, 0, [&](std::string_view text, off_t) {
        spill.Write(text);
        return true;
    });
    if (!read) tooComplex_ = "a file in a part can't be read";
    const std::string shown = (name.empty() ? "a file" : name) + " in " + Shown(*part_);
    bool macros = false;
    if (Scratch* const kept = spill.Finish()) {
        macros = archives_.Look(spill, *kept, shown);
        if (message) LookWithin(kept->Rewind(), shown);
    }
    if (spill.Type().OfficeEncrypted()) archives_.NoteEncrypted("Office");
    attachment.types = spill.Type().Types(magic_);
    if (macros) attachment.types.emplace_back("application/x-office-macros");
    attachment.size = spill.Size();
    Ask(attachment, shown);
}

// What a message has that is a file in the part that is open: it counts as that part's.
void AttachmentFilter::LookWithin(int file, const std::string& path) {
    if (nesting_ >= kMostNesting) {
        tooComplex_ = "messages in files of messages, too many of them in each other";
        return;
    }
    AttachmentFilter inner(rules_, end_, nesting_ + 1);
    WalkLimits limits;
    limits.end = end_;
    struct stat info {};
    std::vector<PartSink*> sinks = {&inner};
    std::optional<DoubtfulParts> doubtful;
    if (engine_ != nullptr && fstat(file, &info) == 0) {
        inner.AskThrough(engine_);
        if (messages_) messages_->Add(file, info.st_size, kMessageStart);
        const BodySource whole{file, Dots::kPlain, {0, info.st_size}};
        sinks.push_back(&doubtful.emplace(*engine_, whole, limits, nesting_ + 1));
    }
    const WalkResult walk = WalkMessage(file, Dots::kPlain, limits, sinks);
    for (Finding found : inner.Findings()) {
        if (findings_.size() >= kMostFindings && !Counts(found.action)) continue;
        found.part = part_->place;
        found.reason += " in " + path;
        findings_.push_back(std::move(found));
    }
    if (const std::string& kind = inner.Encrypted(); !kind.empty())
        archives_.NoteEncrypted(kind.substr(kind.find('.') + 1));
    if (tooComplex_.empty()) tooComplex_ = inner.TooComplex();
    if (tooComplex_.empty() && doubtful) tooComplex_ = doubtful->Unwalked();
    if (tooComplex_.empty() && walk.end != WalkEnd::kWhole) tooComplex_ = walk.why;
}

bool AttachmentFilter::Counts(Action action) const {
    const auto known = [&](const Finding& each) {
        return each.action == action && (!Delivers(action) || each.part == part_->place);
    };
    return action != Action::kPass && std::none_of(findings_.begin(), findings_.end(), known);
}

void AttachmentFilter::Ask(const Attachment& attachment, const std::string& what) {
    const AttachmentRule* const rule = rules_.Find(attachment);
    if (rule == nullptr) return;
    // Beyond the bound only what would change the decision, or takes out another part.
    if (findings_.size() >= kMostFindings && !Counts(rule->action)) return;
    const bool told = std::any_of(findings_.begin(), findings_.end(), [&](const Finding& each) {
        return each.rule == rule->name && each.part == part_->place && each.reason == what;
    });
    if (told) return;
    Finding finding =
        RuledFinding(Section::kAttachments, rule->action, rule->name, what, rule->text);
    finding.part = part_->place;
    finding.value = attachment.size;
    findings_.push_back(std::move(finding));
}

}  // namespace maild
