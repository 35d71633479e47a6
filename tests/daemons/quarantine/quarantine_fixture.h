// A quarantine with a test's messages.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <filesystem>
#include <string>
#include <vector>

#include "daemons/quarantine/quarantine.h"
#include "platform/home.h"

namespace quarantine {

namespace fs = std::filesystem;

inline platform::File FileOf(const std::string& text) {
    platform::File file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file.Write(text.data(), text.size()));
    return file;
}

class Kept : public testing::Test {
  protected:
    void SetUp() override { fs::remove_all(folder_); }

    std::string Keep(const std::string& text, const Limits& limits = {},
                     maild::Dots dots = maild::Dots::kPlain, const std::string& peer = "") {
        KeptMessage message;
        message.peer = peer;
        message.sender = "s@example.org";
        message.recipients = "a@example.org;b@example.org";
        message.section = "content";
        return store_.Keep(FileOf(text).Descriptor(), dots, message, limits, complaint_)
            .value_or("");
    }
    std::vector<std::string> Ids(const quarantine::Filter& filter = {}) {
        std::vector<std::string> ids;
        const auto found = store_.List(filter, complaint_);
        EXPECT_TRUE(found) << complaint_;
        for (const KeptMessage& each : found.value_or(std::vector<KeptMessage>()))
            ids.push_back(each.id);
        return ids;
    }
    std::string Text(const std::string& id) {
        std::string text;
        platform::ReadWholeFile(folder_ + "/" + id + ".eml", text);
        return text;
    }
    std::vector<std::string> Files() {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder_)) {
            const std::string name = entry.path().filename();
            if (!name.starts_with("index.db")) names.push_back(name);
        }
        return names;
    }
    std::string StateOf(const std::string& id) {
        const auto found = store_.Find(id, complaint_);
        return found ? found->state : "none";
    }
    bool Release(const std::string& id, bool again, bool taken) {
        const platform::File claim = store_.Claim(id, again, complaint_);
        return claim && store_.EndRelease(id, taken, complaint_);
    }

    const std::string folder_ = platform::HomePath("quarantine");
    Quarantine store_;
    std::string complaint_;
};

}  // namespace quarantine
