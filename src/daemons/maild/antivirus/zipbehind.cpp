#include "daemons/maild/antivirus/zipbehind.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <tuple>

#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kFile = "PK\3\4"sv;
constexpr std::string_view kEnd = "PK\5\6"sv;
constexpr long long kEndSize = 22;
// Behind its mark the directory's end has so many bytes, and a comment as long as this.
constexpr long long kMostBehindEnd = kEndSize + 0xFFFF;
// Zips that are stored in a zip have their own.
constexpr std::size_t kMostEnds = 10000;  // as many as a comment can have, and more
constexpr std::size_t kMostZips = 20;     // behind one another

constexpr std::string_view kLargeEnd = "PK\6\6"sv;  // for numbers beyond the end's own
constexpr long long kInFrontForLarge = 76;
constexpr std::uint64_t kSaidThere = 0xFFFFFFFF;

std::uint64_t Little(std::string_view bytes, std::size_t at, std::size_t count) {
    std::uint64_t number = 0;
    for (std::size_t i = count; i-- > 0;)
        number = number << 8U | static_cast<unsigned char>(bytes[at + i]);
    return number;
}

}  // namespace

// Text comes line by line, and holds nothing of a mark but letters.
bool ZipBehind::HoldsNone(std::string_view bytes) {
    if (zip_ != nullptr || bytes.size() < kFile.size() || bytes.find(kFile[2]) != bytes.npos ||
        joined_.find(kFile[0]) != std::string::npos)
        return false;
    joined_ = bytes.substr(bytes.size() - (kFile.size() - 1));
    size_ += static_cast<long long>(bytes.size());
    return true;
}

bool ZipBehind::Write(std::string_view bytes) {
    if (HoldsNone(bytes)) return true;
    const long long from = size_ - static_cast<long long>(joined_.size());
    joined_ += bytes;
    size_ += static_cast<long long>(bytes.size());
    bool kept = true;
    if (zip_ != nullptr) {
        kept = zip_->Write(bytes);
    } else if (const std::size_t begin = joined_.find(kFile); begin != std::string::npos) {
        begin_ = from + static_cast<long long>(begin);
        zip_ = std::make_unique<Scratch>();
        kept = zip_->Write(std::string_view(joined_).substr(begin));
    }
    if (zip_ != nullptr) FindEnds(from);
    joined_.erase(0, joined_.size() - std::min(joined_.size(), kFile.size() - 1));
    return kept;
}

void ZipBehind::FindEnds(long long from) {
    for (std::size_t at = joined_.find(kEnd); at != std::string::npos;
         at = joined_.find(kEnd, at + 1)) {
        const long long end = from + static_cast<long long>(at);
        if (end <= begin_) continue;
        if (ends_.empty()) firstEnd_ = end;
        ends_.push_back(end);
        if (ends_.size() > kMostEnds) ends_.pop_front();
    }
}

// In the order of their ends.
std::vector<ZipBehind::Zip> ZipBehind::Zips(int file) const {
    std::vector<Zip> zips;
    std::vector<long long> ends(ends_.begin(), ends_.end());
    if (ends.front() != firstEnd_) ends.insert(ends.begin(), firstEnd_);
    for (const long long at : ends) {
        char bytes[kInFrontForLarge + kEndSize] = {};
        const long long front = std::min(at - begin_, kInFrontForLarge);
        const auto wanted = static_cast<std::size_t>(front + kEndSize);
        if (pread(file, bytes, wanted, at - begin_ - front) != static_cast<ssize_t>(wanted))
            continue;
        const std::string_view end(bytes + front, kEndSize);
        std::uint64_t directory = Little(end, 12, 4);
        std::uint64_t offset = Little(end, 16, 4);
        long long behindDirectory = at;
        const std::string_view large(bytes, static_cast<std::size_t>(front));
        if ((directory == kSaidThere || offset == kSaidThere) && front == kInFrontForLarge &&
            large.starts_with(kLargeEnd)) {
            directory = Little(large, 40, 8);
            offset = Little(large, 48, 8);
            behindDirectory -= kInFrontForLarge;
        }
        const auto most = static_cast<std::uint64_t>(behindDirectory);
        // One that says more than there is has its files where they are in what is there.
        const bool fits = directory > 0 && directory <= most && offset <= most - directory;
        const long long behind = at + kEndSize + static_cast<long long>(Little(end, 20, 2));
        zips.push_back({fits ? static_cast<long long>(most - directory - offset) : begin_,
                        std::min(behind, size_), behind == size_});
    }
    return zips;
}

// The first and the last one, and the last one whose comment goes to the file's end; of a file that
// begins as a zip others that lie in no other, too. What is in a zip is the engine's affair, and a
// file of another kind, as a tar, has many that nobody takes for it.
std::vector<ZipBehind::Zip> ZipBehind::Readable(std::vector<Zip> zips) const {
    std::vector<Zip> readable;
    const auto atFront = std::find_if(zips.begin(), zips.end(),
                                      [&](const Zip& each) { return each.begin <= begin_; });
    if (atFront != zips.end()) readable.push_back(*atFront);
    const auto toEnd =
        std::find_if(zips.rbegin(), zips.rend(), [](const Zip& each) { return each.toEnd; });
    if (toEnd != zips.rend()) readable.push_back(*toEnd);
    if (!zips.empty()) readable.push_back(zips.back());
    std::sort(zips.begin(), zips.end(), [](const Zip& a, const Zip& b) {
        return std::tuple(a.begin, -a.end) < std::tuple(b.begin, -b.end);
    });
    long long behind = begin_ == 0 ? -1 : size_;
    for (const Zip& each : zips) {
        if (each.end > behind && readable.size() < kMostZips) readable.push_back(each);
        behind = std::max(behind, each.end);
    }
    // From the first file on, for who looks for files alone.
    if (!ends_.empty() && begin_ > 0 && size_ - ends_.back() <= kMostBehindEnd)
        readable.push_back({begin_, size_});
    const auto order = [](const Zip& a, const Zip& b) {
        return std::tuple(a.begin, a.end) < std::tuple(b.begin, b.end);
    };
    std::sort(readable.begin(), readable.end(), order);
    readable.erase(std::unique(readable.begin(), readable.end(),
                               [](const Zip& a, const Zip& b) {
                                   return a.begin == b.begin && a.end == b.end;
                               }),
                   readable.end());
    return readable;
}

// As a file that the engine takes for a zip whatever it begins with, with all at its place.
void ZipBehind::Put(int file, const Zip& zip, Questions& questions,
                    const std::string& place) const {
    Scratch part;
    bool kept = part.Write(kFile);
    long long at = zip.begin + static_cast<long long>(kFile.size());
    for (const std::string nothing(65536, '\0'); at < begin_;) {
        const auto count = std::min(begin_ - at, static_cast<long long>(nothing.size()));
        kept = part.Write(nothing.substr(0, static_cast<std::size_t>(count))) && kept;
        at += count;
    }
    const bool read = ReadBlocks(file, at - begin_, [&](std::string_view bytes, off_t) {
        bytes = bytes.substr(0, static_cast<std::size_t>(std::max(zip.end - at, 0LL)));
        at += static_cast<long long>(bytes.size());
        kept = part.Write(bytes) && kept;
        return kept && !bytes.empty();
    });
    if (!kept || (!read && at < zip.end)) questions.Fail();
    questions.Put(part, place);
}

void ZipBehind::Finish(Questions& questions, const std::string& place) {
    if (zip_ == nullptr || ends_.empty()) return;
    const int file = zip_->Rewind();
    if (file < 0) return questions.Fail();
    for (const Zip& each : Readable(Zips(file))) {
        if (!questions.Going()) return;
        const bool whole = begin_ == 0 && each.begin == 0 && each.end == size_;
        if (!whole) Put(file, each, questions, place);
    }
}

}  // namespace maild
