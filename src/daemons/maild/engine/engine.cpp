#include "daemons/maild/engine/engine.h"

#include <limits>

#include "daemons/maild/engine/probes.h"
#include "daemons/maild/log.h"
#include "metrics/count.h"

namespace {

// How often the sentry is looked at; the engine ends a session that is idle for long.
constexpr std::chrono::seconds kLook{2};
// Between attempts that nobody asks for.
constexpr std::chrono::seconds kRetry{5};
// Until an engine that has not shown all is probed again.
constexpr std::chrono::seconds kSecondLook{30};
// For one probe: a slow machine unpacks some hundred megabytes in that.
constexpr std::chrono::seconds kProbeTime{60};
// Smaller messages than this are not told apart.
constexpr long long kSmallestPlain = 4096;
constexpr char kCantProbe[] = "can't make a probe: no descriptor or memory for it";
constexpr long long kNoLimit = std::numeric_limits<long long>::max();

ScanOutcome ScanProbe(const EngineId& engine, const platform::File& probe) {
    if (!probe) return ScanOutcome::kNoMeans;
    return ScanWithClamd(engine, probe.Descriptor(), Connection::Clock::now() + kProbeTime)
        .result.outcome;
}

}  // namespace

void Engine::Start(std::shared_ptr<const Settings> settings) {
    settings_ = std::move(settings);
    thread_ = std::thread([this] { Work(); });
}

void Engine::Stop() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cancel_ = true;
    wake_.notify_all();
    done_.notify_all();
    thread_.join();
}

void Engine::Follow(std::shared_ptr<const Settings> settings) {
    const std::lock_guard lock(mutex_);
    const bool other = settings->clamdSocket != settings_->clamdSocket ||
                       settings->maxFileSize != settings_->maxFileSize;
    settings_ = std::move(settings);
    if (!other) return;
    SetProof(nullptr);
    wanted_ = true;
    wake_.notify_all();
}

ScanResult Engine::Scan(int file, Clock::time_point end,
                        std::shared_ptr<const EngineProof>& proof) {
    ScanResult why;
    // A process that ends under our hands is followed by another one at most a few times in the
    // life of a scan.
    while ((proof = Await(end, why)) != nullptr) {
        if (!proof->findsPattern)
            return {ScanOutcome::kDown, "the engine does not find the test pattern"};
        const ClamdAnswer answer = ScanWithClamd(proof->id, file, end);
        if (!answer.otherEngine) return answer.result;
    }
    return why;
}

// The proof of the engine that is there. Null with the reason: an attempt that was begun after this
// call has failed, or the time is over.
std::shared_ptr<const EngineProof> Engine::Await(Clock::time_point end, ScanResult& why) {
    std::unique_lock lock(mutex_);
    // The attempt that runs now may have missed what has changed since.
    const std::uint64_t enough = attempts_ + (generation_ > attempts_ ? 2 : 1);
    while (proof_ == nullptr && !stopping_) {
        if (attempts_ >= enough) {
            why = failure_;
            return nullptr;
        }
        wanted_ = true;
        wake_.notify_all();
        if (done_.wait_until(lock, end) == std::cv_status::timeout) {
            why = {ScanOutcome::kTimedOut, "the engine has not proven itself yet"};
            return nullptr;
        }
    }
    if (proof_ == nullptr) why = {ScanOutcome::kDown, "stopping"};
    return proof_;
}

// Holds the lock.
void Engine::SetProof(std::shared_ptr<const EngineProof> proof) {
    proof_ = std::move(proof);
    metrics::Set<metrics::Metric::kEngineUp>(metrics::EngineName::kClamd,
                                             proof_ != nullptr && proof_->findsPattern ? 1 : 0);
}

bool Engine::IsSame(std::uint64_t generation, const Connection& connection) {
    const std::lock_guard lock(mutex_);
    const bool current = proof_ != nullptr && proof_->id.generation == generation;
    // While it is being probed there is only the new process to meet.
    if (!current) return generation_ == generation && generation_ > attempts_;
    if (!sentry_->HungUp() && sentry_->Peer() == connection.Peer()) return true;
    SetProof(nullptr);
    return false;
}

void Engine::Work() {
    std::unique_lock lock(mutex_);
    auto next = Clock::now();
    while (!stopping_) {
        if (proof_ != nullptr) {
            lock.unlock();
            Look();
            lock.lock();
        }
        const bool doubtful = proof_ != nullptr && !(proof_->complete && proof_->findsPattern);
        if ((proof_ == nullptr && wanted_) ||
            ((proof_ == nullptr || doubtful) && Clock::now() >= next)) {
            lock.unlock();
            Attempt();
            lock.lock();
            next = Clock::now() + (proof_ == nullptr ? kRetry : kSecondLook);
        }
        if (!stopping_)
            wake_.wait_for(lock, kLook,
                           [this] { return stopping_ || (proof_ == nullptr && wanted_); });
    }
}

void Engine::Look() {
    const std::lock_guard lock(mutex_);
    if (proof_ == nullptr) return;
    std::string came;
    const bool there =
        sentry_->Poke(SignatureWatch::kQuestions, sizeof SignatureWatch::kQuestions, came);
    if (!there || signatures_.Take(came)) {
        SetProof(nullptr);
        wanted_ = true;
    }
}

// One attempt: a sentry, the probes, and then the look whether it was one process all the time.
void Engine::Attempt() {
    std::shared_ptr<const Settings> settings;
    auto proof = std::make_shared<EngineProof>();
    {
        const std::lock_guard lock(mutex_);
        settings = settings_;
        proof->id.generation = ++generation_;
        wanted_ = false;
    }
    proof->id.socketPath = FindClamdSocket(settings->clamdSocket);
    proof->id.connectSeconds = settings->connectSeconds;
    proof->id.cancel = &cancel_;
    proof->id.isSame = [this, generation = proof->id.generation](const Connection& connection) {
        return IsSame(generation, connection);
    };
    auto sentry = std::make_unique<Connection>();
    sentry->SetEnd(Clock::now() + std::chrono::seconds(settings->connectSeconds));
    ScanResult result{sentry->Open(proof->id.socketPath), "can't connect"};
    if (result.outcome == ScanOutcome::kNoMeans) result.text = "no descriptor for a connection";
    static constexpr char kCommand[] = "zIDSESSION";
    // Its signatures as they are before it is probed.
    if (result.outcome == ScanOutcome::kClean &&
        (!sentry->Send(kCommand, sizeof kCommand) ||
         !sentry->Send(SignatureWatch::kQuestions, sizeof SignatureWatch::kQuestions)))
        result = {ScanOutcome::kDown, "no reply"};
    if (result.outcome == ScanOutcome::kClean) result = Prove(*proof, *settings);
    if (result.outcome == ScanOutcome::kClean && sentry->HungUp())
        result = {ScanOutcome::kDown, "the engine has ended"};
    const bool proven = result.outcome == ScanOutcome::kClean;
    {
        const std::lock_guard lock(mutex_);
        ++attempts_;
        // Settings that changed meanwhile ask for another attempt.
        const bool stale = settings != settings_ && wanted_;
        SetProof(proven && !stale ? proof : nullptr);
        if (proof_ != nullptr) {
            sentry_ = std::move(sentry);
            signatures_ = SignatureWatch();
        }
        if (!proven) failure_ = result;
    }
    done_.notify_all();
    if (cancel_) return;
    if (proven) {
        Report(*proof, *settings);
    } else {
        Tell("clamd at " + proof->id.socketPath + ": " + result.text, false);
    }
}

// kClean if the engine has answered; what it has shown is in the proof.
ScanResult Engine::Prove(EngineProof& proof, const Settings& settings) {
    const auto end = Clock::now() + kProbeTime;
    const platform::File pattern = MakePatternProbe();
    if (!pattern) return {ScanOutcome::kNoMeans, kCantProbe};
    const ClamdAnswer answer = ScanWithClamd(proof.id, pattern.Descriptor(), end);
    if (answer.result.outcome != ScanOutcome::kInfected &&
        answer.result.outcome != ScanOutcome::kClean)
        return {answer.result.outcome == ScanOutcome::kFailed ? ScanOutcome::kDown
                                                              : answer.result.outcome,
                answer.result.text};
    proof.complete = true;
    proof.findsPattern = answer.result.outcome == ScanOutcome::kInfected;
    if (!proof.findsPattern) return {ScanOutcome::kClean, ""};
    // What could not be asked says nothing about the engine.
    if (ProveLimits(proof) == ScanOutcome::kNoMeans ||
        ProvePlain(proof, settings.maxFileSize) == ScanOutcome::kNoMeans)
        return {ScanOutcome::kNoMeans, kCantProbe};
    return {ScanOutcome::kClean, ""};
}

// Each probe hides the pattern behind a limit: what finds it has no such limit, or a higher one
// than any message can reach.
ScanOutcome Engine::ProveLimits(EngineProof& proof) {
    const struct {
        platform::File (*make)();
        const char* name;
    } probes[] = {{MakeNestingProbe, "message nested in messages"},
                  {MakeUnpackProbe, "archive that unpacks to gigabytes"},
                  {MakeFilesProbe, "archive of many files"}};
    for (const auto& each : probes) {
        const ScanOutcome outcome = ScanProbe(proof.id, each.make());
        if (outcome == ScanOutcome::kTooBig || outcome == ScanOutcome::kInfected) continue;
        proof.silentAt = each.name;
        proof.complete = outcome == ScanOutcome::kClean;
        return outcome;
    }
    proof.tellsOfLimits = true;
    return ScanOutcome::kClean;
}

// A message of our largest size with the pattern at its end; if that is called clean, smaller ones
// show up to where it looks.
ScanOutcome Engine::ProvePlain(EngineProof& proof, long long size) {
    const long long largest = size;
    for (; size >= kSmallestPlain; size /= 4) {
        const ScanOutcome outcome = ScanProbe(proof.id, MakeSizeProbe(size));
        if (outcome == ScanOutcome::kTooBig || outcome == ScanOutcome::kInfected) {
            // Nothing beyond our own largest size is scanned, but for a form of it, which may be
            // larger: of an engine that is silent that is more than it has shown.
            proof.plainBytes = size == largest && proof.tellsOfLimits ? kNoLimit : size;
            return ScanOutcome::kClean;
        }
        if (outcome == ScanOutcome::kNoMeans) return outcome;
        proof.complete = proof.complete && outcome == ScanOutcome::kClean;
        proof.silentAt = "message of " + std::to_string(size) + " bytes";
    }
    return ScanOutcome::kClean;
}

void Engine::Report(const EngineProof& proof, const Settings& settings) {
    const std::string where = "clamd at " + proof.id.socketPath;
    if (!proof.findsPattern)
        return Tell(where + " does not find the test pattern: its signatures are missing", false);
    if (proof.tellsOfLimits && proof.plainBytes == kNoLimit)
        return Tell(where + " finds the test pattern and tells of its limits", true);
    Tell("mail could pass unscanned: " + where + " called clean a " + proof.silentAt +
             "; messages like it are not believed to be clean. In " + settings.clamdConf +
             ": AlertExceedsMax yes, MaxFileSize above " + std::to_string(settings.maxFileSize) +
             ", MaxScanSize not above MaxFileSize",
         false);
}

// Once for each change. The thread's alone.
void Engine::Tell(const std::string& text, bool good) {
    if (text == told_) return;
    told_ = text;
    Log({.kind = good ? kEventInfo : kEventWarning, .text = text});
}
