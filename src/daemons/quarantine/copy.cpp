#include "daemons/quarantine/copy.h"

#include <sys/stat.h>

#include "daemons/maild/coding/lines.h"
#include "daemons/maild/walk/headers.h"
#include "text/ascii.h"

namespace quarantine {

namespace {

constexpr std::size_t kFlushAt = 65536;
constexpr long long kMostHeaders = 256 << 10;

// Finds the subject among the lines that go by.
class SubjectReader {
  public:
    void Take(const maild::Line& line) {
        if (over_) return;
        const std::string_view content = line.Content();
        if (line.begins && content.empty()) {
            over_ = true;
        } else if (line.begins) {
            over_ = !block_.AddLine(content);
        } else {
            block_.AddToLine(content);
        }
        over_ = over_ || block_.Bytes() > kMostHeaders;
    }
    std::string Subject() const {
        for (const maild::HeaderField& field : block_.Fields()) {
            if (EqualIgnoringCase(field.name, "Subject")) return field.decoded;
        }
        return {};
    }

  private:
    maild::HeaderBlock block_;
    bool over_ = false;
};

}  // namespace

Copied CopyMessage(int file, maild::Dots dots, platform::File& to) {
    Copied copied;
    struct stat info {};
    if (fstat(file, &info) != 0) return copied;
    maild::LineReader reader(file, dots, {0, info.st_size});
    SubjectReader subject;
    maild::Line line;
    std::string out;
    while (reader.Next(line)) {
        subject.Take(line);
        out += line.text;
        copied.size += static_cast<long long>(line.text.size());
        if (out.size() < kFlushAt) continue;
        if (!to.Write(out.data(), out.size())) return copied;
        out.clear();
    }
    copied.whole = !reader.Failed() && to.Write(out.data(), out.size());
    copied.subject = subject.Subject();
    return copied;
}

}  // namespace quarantine
