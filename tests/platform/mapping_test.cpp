#include "platform/mapping.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <vector>

#include "support/instance.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSize = 12288;

struct Mapped {
    explicit Mapped(bool writing) {
        fs::remove(path);
        platform::File file = platform::File::CreateExclusive(path.c_str(), -1);
        const std::vector<char> text(kSize, 'x');
        EXPECT_TRUE(file.Write(text.data(), text.size()));
        if (!writing) file = platform::File::OpenRead(path.c_str());
        mapping = platform::Mapping::Map(std::move(file), kSize, writing);
    }
    volatile char* At(std::size_t place) const {
        return static_cast<volatile char*>(mapping.Data()) + place;
    }
    const std::string path = g_instance.Path() + "/mapped";
    platform::Mapping mapping;
};

// A careless person's cut ends no process; the file of one that writes is whole again.
TEST(Mapping, AFileThatIsCutEndsNobody) {
    const Mapped reader(false);
    ASSERT_TRUE(reader.mapping);
    EXPECT_EQ(*reader.At(5000), 'x');
    fs::resize_file(reader.path, 0);
    EXPECT_EQ(*reader.At(5000), '\0');

    const Mapped writer(true);
    ASSERT_TRUE(writer.mapping);
    for (const std::size_t left : {0, 4096, 0}) {
        fs::resize_file(writer.path, left);
        EXPECT_EQ(*writer.At(5000), '\0');
        EXPECT_EQ(*writer.At(1), left == 0 ? '\0' : 'y');
        *writer.At(1) = 'y';
        *writer.At(9000) = 'y';
        EXPECT_EQ(fs::file_size(writer.path), kSize);
    }
    EXPECT_EQ(*writer.At(9000), 'y');
}

// One that can't be mended any more becomes the process's own.
TEST(Mapping, AFileThatIsCutForEverIsGivenUp) {
    const Mapped writer(true);
    for (int i = 0; i < 200; ++i) {
        *writer.At(9000) = 'y';
        fs::resize_file(writer.path, 0);
    }
    *writer.At(9000) = 'z';
    EXPECT_EQ(*writer.At(9000), 'z');
    EXPECT_EQ(fs::file_size(writer.path), 0U);
}

TEST(MappingDeathTest, ItIsAsEverWhereThereIsNoFileOfOurs) {
    const Mapped mapped(true);
    EXPECT_EXIT(raise(SIGBUS), testing::KilledBySignal(SIGBUS), "");
}

TEST(Mapping, PlacesAreGivenBack) {
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(Mapped(false).mapping) << i;
}

}  // namespace
