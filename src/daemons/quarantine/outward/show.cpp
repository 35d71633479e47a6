#include "daemons/quarantine/outward/show.h"

#include <memory>

#include "daemons/maild/coding/text.h"
#include "daemons/maild/walk/walk.h"
#include "text/printable.h"

namespace {

using maild::Part;

// Bytes of one text that are shown.
constexpr std::size_t kMostText = 65536;
constexpr std::size_t kMostTexts = 1U << 20U;  // of all of them
constexpr std::size_t kMostPart = 64U << 20U;
constexpr std::size_t kMostHeader = 1000;

class Reader final : public maild::PartSink {
  public:
    void Headers(std::span<const maild::HeaderField> fields, const std::string& place) override {
        if (!place.empty()) return;
        for (const maild::HeaderField& each : fields)
            headers_ += CleanText(each.name) + ": " + CleanText(each.decoded, kMostHeader) + "\n";
    }
    void Begin(const Part& part) override {
        text_.clear();
        size_ = 0;
        converter_.reset();
        if (part.isText && texts_.size() < kMostTexts)
            converter_ = std::make_unique<maild::Utf8Stream>(part.charset);
    }
    void Data(std::span<const std::byte> bytes) override {
        size_ += bytes.size();
        if (converter_ == nullptr || text_.size() >= kMostText) return;
        converter_->Write(bytes, [this](std::string_view text) { text_ += text; });
    }
    void End(const Part& part) override {
        if (part.kind == maild::PartKind::kMultipart) return;
        parts_ += "part " + part.place + ": " + CleanText(part.type);
        if (!part.names.empty()) parts_ += ", " + CleanText(part.names.front(), kMostHeader);
        if (part.kind == maild::PartKind::kLeaf) parts_ += ", " + std::to_string(size_) + " bytes";
        parts_ += "\n";
        if (converter_ == nullptr || part.kind != maild::PartKind::kLeaf) return;
        const bool cut = text_.size() >= kMostText;
        if (cut) text_.resize(kMostText);
        if (!cut) converter_->Finish([this](std::string_view text) { text_ += text; });
        texts_ +=
            "\n--- part " + part.place + ", " + CleanText(part.type) + "\n" + CleanLines(text_);
        if (cut) texts_ += "(and more)\n";
        converter_.reset();
    }
    void Done(const maild::WalkResult& result) override {
        if (result.end != maild::WalkEnd::kWhole) parts_ += "(and more: " + result.why + ")\n";
    }
    std::string Text() const { return headers_ + "\n" + parts_ + texts_; }

  private:
    std::string headers_;
    std::string parts_;
    std::string texts_;
    std::string text_;  // of the part at hand, in UTF-8
    std::size_t size_ = 0;
    std::unique_ptr<maild::Utf8Stream> converter_;
};

class Taker final : public maild::PartSink {
  public:
    Taker(std::string place, std::string& bytes) : place_(std::move(place)), bytes_(bytes) {}

    void Begin(const Part& part) override {
        taking_ = !found_ && part.kind == maild::PartKind::kLeaf && part.place == place_;
        found_ = found_ || taking_;
    }
    void Data(std::span<const std::byte> bytes) override {
        if (taking_ && bytes_.size() < kMostPart)
            bytes_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    void End(const Part&) override { taking_ = false; }
    bool Found() const { return found_; }

  private:
    const std::string place_;
    std::string& bytes_;
    bool taking_ = false;
    bool found_ = false;
};

}  // namespace

std::string MessageAsText(const platform::File& message) {
    Reader reader;
    maild::PartSink* const sinks[] = {&reader};
    maild::WalkMessage(message.Descriptor(), maild::Dots::kPlain, {}, sinks);
    return reader.Text();
}

bool PartOf(const platform::File& message, const std::string& place, std::string& bytes) {
    Taker taker(place, bytes);
    maild::PartSink* const sinks[] = {&taker};
    maild::WalkMessage(message.Descriptor(), maild::Dots::kPlain, {}, sinks);
    return taker.Found();
}

std::string CleanLines(std::string_view text) {
    std::string lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        std::string spaced(line);
        for (char& c : spaced) c = c == '\t' ? ' ' : c;
        lines += CleanText(spaced) + "\n";
    }
    return lines;
}
