// An attachment: it is looked into within the bounds, and what is found in it is told within the
// message's walk.
#include <cstdint>
#include <cstdlib>

#include "daemons/maild/antivirus/tnef.h"
#include "daemons/maild/attachments/archive.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using maild::ArchiveLooker;
    if (size < 2) return 0;
    const maild::ArchiveLimits limits{3, 50, 1 << 20};
    int files = 0;
    ArchiveLooker looker(limits, ArchiveLooker::Clock::now() + std::chrono::seconds(20),
                         maild::MagicUse::kNever,
                         [&](const maild::Attachment&, const std::string& path) {
                             if (++files > 100 || path.empty())
                                 std::abort();  // and names without files
                         });
    maild::Questions questions(
        [](int file, long long bytes) {
            if (file < 0 || bytes <= 0) std::abort();
            return ScanResult{ScanOutcome::kClean, ""};
        },
        static_cast<long long>(size));
    looker.AskThrough(&questions, "1");
    // The first byte says whether it is called an archive.
    maild::Spill spill((data[0] & 1U) != 0);
    const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    spill.Write(bytes.substr(0, bytes.size() / 2));
    spill.Write(bytes.substr(bytes.size() / 2));
    maild::TnefReader tnef(questions, "1");
    tnef.Write(bytes.substr(0, bytes.size() / 2));
    tnef.Write(bytes.substr(bytes.size() / 2));
    tnef.Finish();
    for (const std::string& name : tnef.AllNames()) {
        if (name.empty()) std::abort();
    }
    if (maild::Scratch* const file = spill.Finish()) looker.Look(spill, *file, "a.gz");
    if (spill.Size() != static_cast<long long>(bytes.size())) std::abort();
    for (const std::string& type : spill.Type().Types(maild::MagicUse::kNever)) {
        if (type.find('/') == std::string::npos) std::abort();
    }
    return 0;
}
