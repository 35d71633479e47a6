// What an engine shows of itself: the probes, one after the other.
#include "daemons/maild/engine/engine.h"
#include "daemons/maild/engine/probes.h"

namespace {

// For one probe: a slow machine unpacks some hundred megabytes in that.
constexpr std::chrono::seconds kProbeTime{60};
// Smaller messages than this are not told apart.
constexpr long long kSmallestPlain = 4096;
constexpr char kCantProbe[] = "can't make a probe: no descriptor or memory for it";

ScanOutcome ScanProbe(const EngineId& engine, const platform::File& probe) {
    if (!probe) return ScanOutcome::kNoMeans;
    return ScanWithClamd(engine, probe.Descriptor(), Connection::Clock::now() + kProbeTime)
        .result.outcome;
}

}  // namespace

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
            proof.plainBytes =
                size == largest && proof.tellsOfLimits ? EngineProof::kNoLimit : size;
            return ScanOutcome::kClean;
        }
        if (outcome == ScanOutcome::kNoMeans) return outcome;
        proof.complete = proof.complete && outcome == ScanOutcome::kClean;
        proof.silentAt = "message of " + std::to_string(size) + " bytes";
    }
    return ScanOutcome::kClean;
}
