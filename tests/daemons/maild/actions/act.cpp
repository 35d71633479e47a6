// Does to a stored message what rules have decided, without the daemon around it: for
// rewriting_test.py, which knows what should come of it.
//
//   act FILE data|chunks WORD...      remove:PLACE[=REASON], tag:TEXT, quarantine:REASON
//
// Prints the action that won and the id in the quarantine, or what failed. The quarantine is that
// of VANTREL_HOME. Exit 0; 1: the message would be put off.
#include <cstdio>
#include <string>
#include <vector>

#include "daemons/maild/actions/perform.h"
#include "daemons/maild/walk/walk.h"

namespace {

maild::Finding FindingOf(const std::string& word) {
    const std::size_t colon = word.find(':');
    const std::string rest = word.substr(colon + 1);
    const std::size_t sign = rest.find('=');
    maild::Finding finding{.section = maild::Section::kAttachments, .rule = "test"};
    finding.action = *maild::ActionOf(word.substr(0, colon));
    if (finding.action == maild::Action::kTag) {
        finding.target = rest;
        finding.reason = "tagged";
    } else if (finding.action == maild::Action::kRemove) {
        finding.part = rest.substr(0, sign);
        finding.reason = sign == std::string::npos ? "forbidden" : rest.substr(sign + 1);
    } else {
        finding.reason = rest;
    }
    return finding;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const Transfer transfer =
        std::string(argv[2]) == "chunks" ? Transfer::kChunks : Transfer::kData;
    const platform::File file = platform::File::OpenRead(argv[1]);
    maild::PartMap parts;
    maild::PartSink* const sinks[] = {&parts};
    maild::WalkMessage(file.Descriptor(),
                       transfer == Transfer::kData ? maild::Dots::kStuffed : maild::Dots::kPlain,
                       {}, sinks);
    std::vector<maild::Finding> findings;
    for (int i = 3; i < argc; ++i) findings.push_back(FindingOf(argv[i]));
    maild::HoldBackWhatStays(findings, parts, transfer);
    const maild::Decision decision = maild::Decide(findings);
    quarantine::Quarantine store;
    const maild::Done done =
        maild::Perform({argv[1], transfer, "s@example.org", "r@example.org", ""}, findings,
                       decision, parts, store, {});
    std::printf("%s %s\n", maild::Word(decision.action),
                done.good ? done.keptAs.c_str() : done.why.c_str());
    return done.good ? 0 : 1;
}
