// Has the scan daemon of VANTREL_HOME look at every file of a directory: scan_files DIRECTORY
// [THREADS]. Exit 1 if one is not called clean.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "scanclient/scanclient.h"

namespace {

bool IsClean(const std::string& path) {
    MailScanRecord record{};
    record.path = path.c_str();
    record.sender = "sender@example.org";
    record.peerAddress = "192.0.2.1";
    record.timeoutSeconds = 60;
    record.transferForm = 1;
    record.scanSections = 15;  // as the proxy asks
    MailScanAddRecipient(&record, "recipient@example.org");
    const bool clean = MailScan(&record) == 0 && record.actionMask == 1;
    MailScanFree(&record);
    return clean;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || MailScanInit() != 0) return 2;
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1]))
        paths.push_back(entry.path());
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> others{0};
    std::vector<std::thread> threads;
    for (int i = argc > 2 ? std::atoi(argv[2]) : 8; i > 0; --i) {
        threads.emplace_back([&] {
            for (std::size_t at = 0; (at = next++) < paths.size();) {
                if (!IsClean(paths[at])) ++others;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    MailScanUninit();
    if (others > 0) std::printf("%zu of %zu not called clean\n", others.load(), paths.size());
    return others > 0 ? 1 : 0;
}
