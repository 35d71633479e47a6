// A walk's parts as text, for tests: "(multipart/mixed (1 text/plain[hello]) (2 ...))".
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "daemons/maild/walk/walk.h"
#include "platform/file.h"

inline platform::File FileOf(const std::string& text) {
    platform::File file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file.Write(text.data(), text.size()));
    return file;
}

class Outline final : public maild::PartSink {
  public:
    void Headers(std::span<const maild::HeaderField> fields, const std::string&) override {
        for (const maild::HeaderField& each : fields) headers.push_back(each);
    }
    void Begin(const maild::Part& part) override {
        text += "(" + part.place + (part.place.empty() ? "" : " ") + part.type;
        if (part.kind == maild::PartKind::kLeaf) text += "[";
        open.push_back(part);
    }
    void Data(std::span<const std::byte> bytes) override {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    void End(const maild::Part& part) override {
        EXPECT_EQ(open.back().place, part.place);
        open.pop_back();
        text += part.kind == maild::PartKind::kLeaf ? "])" : ")";
        parts.push_back(part);
    }
    void Done(const maild::WalkResult& result) override {
        EXPECT_TRUE(open.empty());
        ++done;
        for (const maild::Ambiguity& each : result.ambiguities)
            ambiguous += std::string(ambiguous.empty() ? "" : ", ") + KindOf(each.what).words;
    }

    std::string text;
    std::string ambiguous;
    std::vector<maild::HeaderField> headers;
    std::vector<maild::Part> parts;  // in the order of their ends
    std::vector<maild::Part> open;
    int done = 0;
};

inline Outline OutlineOf(const std::string& text, maild::Dots dots = maild::Dots::kPlain,
                         const maild::WalkLimits& limits = {},
                         maild::WalkResult* result = nullptr) {
    Outline outline;
    maild::PartSink* const sinks[] = {&outline};
    const maild::WalkResult walked = WalkMessage(FileOf(text).Descriptor(), dots, limits, sinks);
    if (result != nullptr) *result = walked;
    EXPECT_EQ(outline.done, 1);
    return outline;
}

// The lines of a text with CR LF.
inline std::string Wire(std::string text) {
    std::string wire;
    for (const char c : text) wire += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return wire;
}
