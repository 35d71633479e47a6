// What a connection costs that nothing happens on.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <vector>

#include "platform/file.h"
#include "tls/peers.h"

namespace {

// With it the allocator is another one.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kOtherAllocator = true;
#else
constexpr bool kOtherAllocator = false;
#endif

constexpr std::size_t kConnections = 400;
constexpr std::size_t kMostALeg = 25 * 1024;

std::size_t Resident() {
    std::size_t whole = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> whole >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST(Memory, OfAnIdleLegIsSmall) {
    if (kOtherAllocator) GTEST_SKIP() << "the sanitizer's allocator";
    platform::RaiseDescriptorLimit();
    const AnyServer any({.rsa = true});
    std::string complaint;
    const auto client =
        TlsClientContext(any.files.Put("authorities", any.authority.Certificate()), complaint);
    std::vector<std::unique_ptr<Wire>> wires;
    std::vector<Outcomes> idle;
    const auto one = [&] {
        wires.push_back(std::make_unique<Wire>());
        idle.push_back(Shake(*wires.back(), *any.context, *client, {"mail.test", "mail.test"}));
        Outcomes& both = idle.back();
        ASSERT_EQ(both.server.failure + both.client.failure, "");
        // Both have read and written, and wait.
        std::array<char, 512> block;
        for (Transport* each : {both.server.transport.get(), both.client.transport.get()})
            EXPECT_EQ(each->SendNow(block.data(), 512), 512);
        for (Transport* each : {both.server.transport.get(), both.client.transport.get()})
            while (each->ReceiveNow(block.data(), 512) > 0) {
            }
    };
    for (int warm = 0; warm < 20; ++warm) one();
    malloc_trim(0);
    const std::size_t used = mallinfo2().uordblks;
    const std::size_t resident = Resident();
    for (std::size_t i = 0; i < kConnections; ++i) one();
    const std::size_t allocated = (mallinfo2().uordblks - used) / kConnections / 2;
    const std::size_t really = (Resident() - resident) / kConnections / 2;
    std::printf("an idle leg: %zu bytes allocated, %zu resident\n", allocated, really);
    EXPECT_LT(allocated, kMostALeg);
    EXPECT_LT(really, kMostALeg);
    RecordProperty("resident", static_cast<int>(really));
}

}  // namespace
