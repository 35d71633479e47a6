#include "daemons/maild/antivirus/questions.h"

#include <glib.h>

#include <memory>

#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

// Ordinary mail has none, mail with a broken part seven; a stranger shall not keep the engine busy
// with one message.
constexpr int kMostQuestions = 200;
constexpr int kMostFiles = 2000;      // equal ones too
constexpr long long kMostTimes = 16;  // the message's size
constexpr long long kFree = 1 << 20;  // bytes besides

struct ChecksumFreed {
    void operator()(GChecksum* sum) const { g_checksum_free(sum); }
};

std::string ChecksumOf(int file) {
    const std::unique_ptr<GChecksum, ChecksumFreed> sum(g_checksum_new(G_CHECKSUM_SHA256));
    const bool read = ReadBlocks(file, 0, [&](std::string_view text, off_t) {
        g_checksum_update(sum.get(), reinterpret_cast<const guchar*>(text.data()),
                          static_cast<gssize>(text.size()));
        return true;
    });
    return read ? g_checksum_get_string(sum.get()) : std::string();
}

bool Worse(ScanOutcome a, ScanOutcome b) {
    const auto rank = [](ScanOutcome outcome) {
        if (outcome == ScanOutcome::kClean || outcome == ScanOutcome::kEncrypted) return 0;
        return outcome == ScanOutcome::kInfected ? 2 : 1;
    };
    return rank(a) > rank(b);
}

bool LeadsOn(ScanOutcome outcome) {
    return outcome == ScanOutcome::kClean || outcome == ScanOutcome::kEncrypted ||
           outcome == ScanOutcome::kTooBig || outcome == ScanOutcome::kFailed;
}

}  // namespace

void Questions::PutFile(Scratch& file, const std::string& place, long long counts) {
    if (!going_ || file.Size() == 0) return;
    if (++files_ > kMostFiles) return Stop();
    const int descriptor = file.Rewind();
    const std::string sum = descriptor < 0 ? std::string() : ChecksumOf(descriptor);
    if (sum.empty()) return Fail();
    if (!asked_.insert(sum).second) return;
    bytes_ += counts;
    if (++count_ > kMostQuestions || bytes_ > kMostTimes * size_ + kFree) return Stop();
    const ScanResult result = ask_(file.Rewind(), file.Size());
    if (Worse(result.outcome, result_.outcome)) {
        result_ = result;
        place_ = place;
    }
    going_ = LeadsOn(result.outcome);
}

void Questions::Stop() {
    tooMany_ = true;
    going_ = false;
}

void Questions::Fail() {
    if (result_.outcome == ScanOutcome::kClean)
        result_ = {ScanOutcome::kFailed, "can't make a file of a part"};
}

}  // namespace maild
