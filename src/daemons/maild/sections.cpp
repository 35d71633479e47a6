#include "daemons/maild/sections.h"

#include <chrono>
#include <optional>

#include "daemons/maild/actions/perform.h"
#include "daemons/maild/attachments/filter.h"
#include "daemons/maild/verdict/antivirus.h"
#include "daemons/maild/verdict/ruled.h"

namespace {

void Append(std::vector<maild::Finding>& all, const std::vector<maild::Finding>& more,
            const Settings& settings) {
    for (maild::Finding each : more) {
        maild::AddTarget(each, settings.redirectAddress);
        all.push_back(std::move(each));
    }
}

void Fill(std::string& text, const std::string& other) {
    if (text.empty()) text = other;
}

}  // namespace

AllFindings JudgeBySections(Engines& engines, const Settings& settings, const char* path,
                            Transfer transfer, const maild::Envelope& envelope) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(settings.scanSeconds);
    // Without rules what it looks into is the engine's affair alone.
    maild::AttachmentFilter attachments(settings.attachments, end);
    std::optional<maild::ContentFilter> content;
    std::vector<maild::PartSink*> sinks = {&attachments};
    if (settings.content.Any()) sinks.push_back(&content.emplace(settings.content, envelope, end));
    AllFindings verdict;
    maild::PartSink* const own[] = {&verdict.parts};
    verdict.judgement = JudgeMessage(engines, settings, path, transfer, own, sinks);
    Judgement& judgement = verdict.judgement;
    const bool infected = judgement.scan.outcome == ScanOutcome::kInfected;
    if (settings.attachments.Any() && !infected) {
        Fill(judgement.encrypted, attachments.Encrypted());
        Fill(judgement.tooComplex, attachments.TooComplex());
    }
    if (content && !infected) Fill(judgement.tooComplex, content->TooComplex());
    verdict.findings = maild::AntivirusFindings(settings, judgement);
    if (!infected) Append(verdict.findings, attachments.Findings(), settings);
    if (content && !infected) Append(verdict.findings, content->Findings(), settings);
    maild::HoldBackWhatStays(verdict.findings, verdict.parts, transfer);
    return verdict;
}
