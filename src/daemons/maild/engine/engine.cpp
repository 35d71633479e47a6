#include "daemons/maild/engine/engine.h"

#include <optional>

#include "daemons/maild/log.h"
#include "metrics/count.h"

namespace {

// How often the sentry is looked at; the engine ends a session that is idle for long.
constexpr std::chrono::seconds kLook{2};
// Between attempts that nobody asks for.
constexpr std::chrono::seconds kRetry{5};
// Until an engine that has not shown all is probed again.
constexpr std::chrono::seconds kSecondLook{30};
// Long enough for others to do its work, short enough to notice that it does it again.
constexpr std::chrono::seconds kAvoided{10};

// Of all engines together.
std::uint64_t NextGeneration() {
    static std::atomic<std::uint64_t> generation{0};
    return ++generation;
}

}  // namespace

void Engine::Start(std::shared_ptr<const Settings> settings) {
    settings_ = std::move(settings);
    metrics::Set<metrics::Metric::kEngineUp>(place_, 0);
    thread_ = std::thread([this] {
        Work();
        ended_ = true;
    });
}

void Engine::End() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cancel_ = true;
    wake_.notify_all();
    done_.notify_all();
}

void Engine::Stop() {
    if (!thread_.joinable()) return;
    End();
    thread_.join();
}

void Engine::Follow(std::shared_ptr<const Settings> settings) {
    const std::lock_guard lock(mutex_);
    const bool other =
        (setting_.address.empty() && settings->clamdSocket != settings_->clamdSocket) ||
        settings->maxFileSize != settings_->maxFileSize;
    settings_ = std::move(settings);
    if (!other) return;
    SetProof(nullptr);
    wanted_ = true;
    wake_.notify_all();
}

Engine::Ticket Engine::Want() {
    const std::lock_guard lock(mutex_);
    if (proof_ == nullptr) {
        wanted_ = true;
        wake_.notify_all();
    }
    // The attempt that runs now may have missed what has changed since.
    return attempts_ + (begun_ > attempts_ ? 2 : 1);
}

ScanResult Engine::Scan(int file, Clock::time_point end, std::shared_ptr<const EngineProof>& proof,
                        Ticket ticket) {
    ScanResult why;
    // A process that ends under our hands is followed by another one at most a few times in the
    // life of a scan.
    while ((proof = ProofBy(ticket, end, why)) != nullptr) {
        if (!proof->findsPattern)
            return {ScanOutcome::kDown, "the engine does not find the test pattern"};
        ++outstanding_;
        const ClamdAnswer answer = ScanWithClamd(proof->id, file, end);
        --outstanding_;
        if (!answer.otherEngine) return answer.result;
        ticket = Want();
    }
    return why;
}

// The proof of the engine that is there. Null with the reason: the ticket's attempt has failed, or
// the time is over.
std::shared_ptr<const EngineProof> Engine::ProofBy(Ticket ticket, Clock::time_point end,
                                                   ScanResult& why) {
    std::unique_lock lock(mutex_);
    while (proof_ == nullptr && !stopping_) {
        if (attempts_ >= ticket) {
            why = failure_;
            return nullptr;
        }
        wanted_ = true;
        wake_.notify_all();
        if (done_.wait_until(lock, end) == std::cv_status::timeout) {
            why = {ScanOutcome::kUnproven, "the engine has not proven itself yet"};
            return nullptr;
        }
    }
    if (proof_ == nullptr) why = {ScanOutcome::kDown, "stopping"};
    return proof_;
}

bool Engine::Await(Ticket ticket, Clock::time_point end) {
    std::unique_lock lock(mutex_);
    return done_.wait_until(lock, end,
                            [&] { return proof_ != nullptr || stopping_ || attempts_ >= ticket; });
}

bool Engine::IsUp() const {
    const std::lock_guard lock(mutex_);
    return proof_ != nullptr && proof_->findsPattern;
}

void Engine::Avoid() { avoidUntil_ = (Clock::now() + kAvoided).time_since_epoch().count(); }

bool Engine::IsAvoided() const { return Clock::now().time_since_epoch().count() < avoidUntil_; }

std::string Engine::Where(const Settings& settings) const {
    return setting_.address.empty() ? FindClamdSocket(settings.clamdSocket) : setting_.address;
}

EngineState Engine::State() const {
    const std::lock_guard lock(mutex_);
    EngineState state{setting_.name, settings_ == nullptr ? setting_.address : Where(*settings_),
                      "being probed", "", outstanding_};
    if (proof_ != nullptr) {
        state.version = signatures_.Version();
        state.state = !proof_->findsPattern  ? "finds nothing"
                      : proof_->IsBelieved() ? "up"
                                             : "up, not believed about all";
    } else if (attempts_ > 0 && begun_ == attempts_ && !failure_.text.empty()) {
        state.state = "down: " + failure_.text;
    }
    return state;
}

// Holds the lock.
void Engine::SetProof(std::shared_ptr<const EngineProof> proof) {
    proof_ = std::move(proof);
    if (stopping_) return;  // the place may be another one's by now
    metrics::Set<metrics::Metric::kEngineUp>(place_,
                                             proof_ != nullptr && proof_->findsPattern ? 1 : 0);
}

bool Engine::IsSame(std::uint64_t generation, const Connection& connection) {
    const std::lock_guard lock(mutex_);
    const bool current = proof_ != nullptr && proof_->id.generation == generation;
    // While it is being probed there is only the new process to meet.
    if (!current) return generation_ == generation && begun_ > attempts_;
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
        proof->id.generation = generation_ = NextGeneration();
        ++begun_;
        wanted_ = false;
    }
    const std::string where = Where(*settings);
    // What is found by itself is a path.
    const std::optional<ServiceAddress> address =
        setting_.address.empty() ? ServiceAddress::OfPath(where) : ServiceAddress::Parse(where);
    if (address)
        proof->id.targets = names_.Targets(
            *address, Clock::now() + std::chrono::seconds(settings->connectSeconds), &cancel_);
    proof->id.connectSeconds = settings->connectSeconds;
    proof->id.cancel = &cancel_;
    proof->id.isSame = [this, generation = proof->id.generation](const Connection& connection) {
        return IsSame(generation, connection);
    };
    auto sentry = std::make_unique<Connection>();
    sentry->SetEnd(Clock::now() + std::chrono::seconds(settings->connectSeconds), &cancel_);
    ScanResult result{sentry->Open(proof->id.targets), "can't connect"};
    if (!address) result.text = "this is no address";
    if (address && address->path.empty() && proof->id.targets.empty())
        result.text = "its name is not found";
    if (result.outcome == ScanOutcome::kNoMeans) result.text = "no descriptor for a connection";
    if (result.outcome == ScanOutcome::kClean) {
        // Of all that a name stands for, it is this one that has to prove itself.
        proof->id.targets = {proof->id.targets[sentry->Reached()]};
        sentry->NoticeLoss();
    }
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
        Report(*proof, *settings, where);
    } else {
        Tell(setting_.name + " at " + where + ": " + result.text, false);
    }
}

void Engine::Report(const EngineProof& proof, const Settings& settings,
                    const std::string& address) {
    const std::string where = setting_.name + " at " + address;
    if (!proof.findsPattern)
        return Tell(where + " does not find the test pattern: its signatures are missing", false);
    if (proof.IsBelieved())
        return Tell(where + " finds the test pattern and tells of its limits", true);
    Tell("mail could pass unscanned: " + where + " called clean a " + proof.silentAt +
             "; messages like it are not believed to be clean. In " +
             (proof.id.IsLocal() ? settings.clamdConf : std::string("its clamd.conf")) +
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
