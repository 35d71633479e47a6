// The pre-filters with long lists: bench_filters [USERS [PATTERNS]]. Fills a store of its own, then
// measures a load (time and memory) and the checks, alone and from 100 threads.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "asfilters/core.h"
#include "support/instance.h"
#include "trelis/admin.h"
#include "trelis/trelis.h"

namespace {

const std::string kSender = "/VTWIN/Filters/AS/SenderBlackList";
const std::string kPeers = "/VTWIN/Filters/AS/AllowDenyIPList";
constexpr int kTransaction = 50000;
CASFiltersCore* g_filters = nullptr;

double ResidentMegabytes() {
    std::ifstream status("/proc/self/statm");
    long pages = 0;
    status >> pages >> pages;
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

template <typename Use>
double Seconds(Use use) {
    const auto start = std::chrono::steady_clock::now();
    use();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Fill(const std::string& key, int count, const std::string& before, const std::string& behind) {
    trelis::Values values;
    for (int i = 0; i < count; ++i) {
        values.emplace_back(key + std::to_string(i), before + std::to_string(i) + behind);
        if (values.size() < kTransaction && i + 1 < count) continue;
        trelis::LoadValues(values);
        values.clear();
    }
}

void CheckSender(benchmark::State& state, const char* sender) {
    char deny[512];
    for (auto _ : state) {
        std::string text(sender);
        benchmark::DoNotOptimize(g_filters->CheckSender(text.data(), deny, sizeof deny));
    }
}

void CheckIP(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(g_filters->CheckIP("192.0.2.7"));
}

}  // namespace

BENCHMARK_CAPTURE(CheckSender, unlisted, "Somebody.Else@mail.example.org");
BENCHMARK_CAPTURE(CheckSender, user, "User7777@blocked.example");
BENCHMARK(CheckIP)->Threads(1)->Threads(100)->UseRealTime();

int main(int count, char** arguments) {
    const int users = count > 1 ? std::atoi(arguments[1]) : 1000000;
    const int patterns = count > 2 ? std::atoi(arguments[2]) : 10000;
    if (TrelisInit2() < 0) return 1;
    trelis::LoadValues({{kSender + "/Enabled", "Y"},
                        {kPeers + "/Enabled", "Y"},
                        {kPeers + "/Addresses/1/IP", "10.0.0.0"},
                        {kPeers + "/Addresses/1/Mask", "255.0.0.0"},
                        {kPeers + "/Addresses/1/Action", "2"}});
    const double filled = Seconds([&] {
        Fill(kSender + "/UsersList/", users, "User", "@Blocked.example");
        Fill(kSender + "/WildcardsList/", patterns, "*offer*@spam", ".example");
    });
    auto filters = std::make_unique<CASFiltersCore>();
    g_filters = filters.get();
    const double before = ResidentMegabytes();
    const double first = Seconds([&] { filters->Reload(); });
    const double after = ResidentMegabytes();
    const double second = Seconds([&] { filters->Reload(); });
    std::printf(
        "%d users, %d patterns: store filled in %.1f s; load %.2f s, +%.0f MB; again %.2f s, +%.0f "
        "MB\n",
        users, patterns, filled, first, after - before, second, ResidentMegabytes() - before);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    filters.reset();
    TrelisUninit();
    return 0;
}
