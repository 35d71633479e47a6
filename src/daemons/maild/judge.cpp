#include "daemons/maild/judge.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "daemons/maild/antivirus/doubtful.h"
#include "daemons/maild/forms/encrypted.h"
#include "daemons/maild/forms/unpack.h"
#include "platform/file.h"

namespace {

using Clock = Connection::Clock;

constexpr char kCantRead[] = "can't read the message";
constexpr char kCantCopy[] = "can't copy the message";

bool CouldNotLook(ScanOutcome outcome) {
    return outcome != ScanOutcome::kClean && outcome != ScanOutcome::kEncrypted &&
           outcome != ScanOutcome::kInfected;
}

// Whether the next form would fare as badly.
bool EngineIsAway(ScanOutcome outcome) {
    return outcome == ScanOutcome::kDown || outcome == ScanOutcome::kBusy ||
           outcome == ScanOutcome::kTimedOut || outcome == ScanOutcome::kNoMeans;
}

// The file with the text of these parts replaced by 'A', which stands for zeros.
platform::File WithoutParts(int file, long long size, const std::vector<EncryptedPart>& parts) {
    platform::File copy = MakeForm(file, Form{});
    const long long shift = copy ? copy.Size() - size : 0;
    std::vector<char> block(65536);
    for (const EncryptedPart& part : parts) {
        if (!part.whole) continue;
        for (long long at = part.begin; copy && at < part.end;) {
            const auto wanted = static_cast<std::size_t>(std::min<long long>(part.end - at, 65536));
            const ssize_t count = pread(copy.Descriptor(), block.data(), wanted, at + shift);
            if (count <= 0) return {};
            const auto end = block.begin() + count;
            std::replace_if(
                block.begin(), end, [](char c) { return c != '\r' && c != '\n'; }, 'A');
            if (pwrite(copy.Descriptor(), block.data(), static_cast<std::size_t>(count),
                       at + shift) != count)
                return {};
            at += count;
        }
    }
    return copy;
}

class Judge {
  public:
    Judge(Engines& engines, const Settings& settings)
        : engines_(engines),
          settings_(settings),
          end_(Clock::now() + std::chrono::seconds(settings.scanSeconds)) {}

    ScanResult Look(int file, long long size) {
        ScanResult result = Believed(file, size);
        if (result.outcome != ScanOutcome::kEncrypted) return result;
        encrypted_ = result.text;
        return settings_.whenEncrypted == WhenEncrypted::kPass ? LookBehind(file, size, result)
                                                               : result;
    }
    const std::string& Encrypted() const { return encrypted_; }
    Clock::time_point End() const { return end_; }

  private:
    // The engine's word, but for a "clean" about what it may not have looked at to the end.
    ScanResult Believed(int file, long long size) {
        return engines_.Scan(file, end_, [&](const EngineProof& proof) {
            return proof.plainBytes >= size && (proof.tellsOfLimits || !CouldUnpack(file));
        });
    }
    // The engine gives one finding for a message: "encrypted" may stand for an archive beyond its
    // limits beside it. So it looks again, without what is known to be encrypted.
    ScanResult LookBehind(int file, long long size, const ScanResult& first) {
        std::vector<EncryptedPart> parts;
        if (!FindEncrypted(file, 0, parts)) return {ScanOutcome::kFailed, kCantRead};
        const platform::File rest = WithoutParts(file, size, parts);
        if (!rest) return {ScanOutcome::kFailed, kCantCopy};
        ScanResult result = Believed(rest.Descriptor(), rest.Size());
        if (result.outcome == ScanOutcome::kClean) return first;
        if (result.outcome == ScanOutcome::kEncrypted)
            return {ScanOutcome::kTooBig,
                    result.text + ", and it can't be told what else is in there"};
        return result;
    }

    Engines& engines_;
    const Settings& settings_;
    const Clock::time_point end_;
    std::string encrypted_;
};

std::string OwnFinding(int file, const Survey& survey) {
    std::vector<EncryptedPart> parts;
    if (survey.firstArchive < 0 || !FindEncrypted(file, survey.firstArchive, parts)) return {};
    const auto found = std::find_if(parts.begin(), parts.end(),
                                    [](const EncryptedPart& part) { return part.counts; });
    return found == parts.end() ? std::string() : "Encrypted." + found->kind;
}

ScanResult LookAtForms(Judge& judge, int file, long long size, const Survey& survey,
                       Transfer transfer) {
    ScanResult worst{ScanOutcome::kClean, ""};
    for (const Form& form : FormsOf(survey, transfer)) {
        ScanResult result;
        if (form.AsStored() && survey.known) {
            result = judge.Look(file, size);
        } else if (const platform::File copy = MakeForm(file, form)) {
            result = judge.Look(copy.Descriptor(), copy.Size());
        } else {
            result = {ScanOutcome::kFailed, kCantCopy};
        }
        if (result.outcome == ScanOutcome::kInfected) return result;
        if (CouldNotLook(result.outcome) && !CouldNotLook(worst.outcome)) worst = result;
        if (EngineIsAway(result.outcome)) break;
    }
    return worst;
}

// Walks the message's forms and asks about their parts.
class PartsJudge {
  public:
    PartsJudge(Judge& judge, const Settings& settings, Judgement& judgement)
        : judge_(judge), settings_(settings), judgement_(judgement) {}

    void Look(int file, const Survey& survey, Transfer transfer,
              std::span<maild::PartSink* const> sinks, std::span<maild::PartSink* const> ofForms) {
        std::vector<maild::PartSink*> all(sinks.begin(), sinks.end());
        all.insert(all.end(), ofForms.begin(), ofForms.end());
        const Form main{transfer == Transfer::kChunks ? 0 : CrLfDots() & survey.dots};
        judgement_.walk =
            Walk(file, main.dots == 0 ? maild::Dots::kPlain : maild::Dots::kStuffed, all, ofForms);
        for (const Form& form : FormsOf(survey, transfer)) {
            // Nobody keeps the dots of the way.
            if (form == main || (form.AsStored() && transfer == Transfer::kData)) continue;
            if (judgement_.scan.outcome == ScanOutcome::kInfected) return;
            const platform::File copy = MakeForm(file, form);
            if (!copy) return Take({ScanOutcome::kFailed, kCantCopy});
            Walk(copy.Descriptor(), maild::Dots::kPlain, ofForms, ofForms);
        }
    }

  private:
    static constexpr unsigned CrLfDots() { return SingleDot(kCrLf) | DoubledDot(kCrLf); }

    // `inSigned`: those of the sinks that see the parts of signed messages in a part's bytes.
    maild::WalkResult Walk(int file, maild::Dots dots, std::span<maild::PartSink* const> sinks,
                           std::span<maild::PartSink* const> inSigned) {
        struct stat info {};
        if (fstat(file, &info) != 0) {
            Take({ScanOutcome::kFailed, kCantRead});
            return {maild::WalkEnd::kCantRead, kCantRead, {}, 0};
        }
        // An engine that is away has no answer to anything else either.
        maild::Questions questions(
            [this](int part, long long size) {
                return EngineIsAway(judgement_.scan.outcome) ? ScanResult{ScanOutcome::kClean, ""}
                                                             : judge_.Look(part, size);
            },
            info.st_size);
        const maild::WalkLimits limits{settings_.maxDepth, settings_.maxParts,
                                       settings_.maxHeaderBytes, judge_.End()};
        maild::DoubtfulParts doubtful(questions, {file, dots, {0, info.st_size}}, limits, 0,
                                      inSigned);
        std::vector<maild::PartSink*> all(sinks.begin(), sinks.end());
        all.push_back(&doubtful);
        for (maild::PartSink* sink : sinks) sink->AskThrough(&questions);
        maild::WalkResult walk = maild::WalkMessage(file, dots, limits, all);
        for (maild::PartSink* sink : sinks) sink->AskThrough(nullptr);
        if (doubtful.Hidden()) walk.ambiguities.push_back(*doubtful.Hidden());
        Take(questions.Result());
        if (walk.end == maild::WalkEnd::kTimedOut) Take({ScanOutcome::kTimedOut, walk.why});
        if (walk.end == maild::WalkEnd::kCantRead) Take({ScanOutcome::kFailed, walk.why});
        if (walk.end == maild::WalkEnd::kTooComplex) judgement_.tooComplex = walk.why;
        if (!doubtful.Unwalked().empty()) judgement_.tooComplex = doubtful.Unwalked();
        if (questions.TooMany())
            judgement_.tooComplex = "more readings of its parts than are asked";
        return walk;
    }
    void Take(const ScanResult& result) {
        ScanResult& scan = judgement_.scan;
        if (result.outcome == ScanOutcome::kInfected ||
            (CouldNotLook(result.outcome) && !CouldNotLook(scan.outcome)))
            scan = result;
    }

    Judge& judge_;
    const Settings& settings_;
    Judgement& judgement_;
};

}  // namespace

Judgement JudgeMessage(Engines& engines, const Settings& settings, const char* path,
                       Transfer transfer, std::span<maild::PartSink* const> sinks,
                       std::span<maild::PartSink* const> ofForms) {
    Judgement judgement;
    const auto unasked = [&judgement](ScanOutcome outcome, const char* why) {
        judgement.scan = {outcome, why};
        return judgement;
    };
    const platform::File file(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!file || fstat(file.Descriptor(), &info) != 0 || !S_ISREG(info.st_mode))
        return unasked(ScanOutcome::kFailed, kCantRead);
    judgement.size = info.st_size;
    if (info.st_size > settings.maxFileSize)
        return unasked(ScanOutcome::kTooBig, "larger than MaxFileSize");
    if (info.st_size == 0) return unasked(ScanOutcome::kClean, "");
    Survey survey;
    if (!SurveyMessage(file.Descriptor(), survey)) return unasked(ScanOutcome::kFailed, kCantRead);
    Judge judge(engines, settings);
    judgement.scan = LookAtForms(judge, file.Descriptor(), info.st_size, survey, transfer);
    if (judgement.scan.outcome == ScanOutcome::kInfected) return judgement;
    PartsJudge(judge, settings, judgement)
        .Look(file.Descriptor(), survey, transfer, sinks, ofForms);
    if (judgement.scan.outcome == ScanOutcome::kInfected) return judgement;
    judgement.encrypted = judge.Encrypted();
    if (judgement.encrypted.empty()) judgement.encrypted = OwnFinding(file.Descriptor(), survey);
    return judgement;
}
