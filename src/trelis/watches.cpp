#include "trelis/watches.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "trelis/opening.h"
#include "trelis/sequence.h"

namespace trelis {

// Finds the rows that other processes have written since the last look.
class ChangeReader {
  public:
    explicit ChangeReader(std::int64_t origin) : origin_(origin) {
        std::string why;
        database_ = OpenDatabase(why);
        if (database_ == nullptr) return;
        newer_ = {database_.get(), "SELECT id, origin, path FROM changes WHERE id > ? ORDER BY id"};
        range_ = {database_.get(), "SELECT min(id), max(id) FROM changes"};
        std::int64_t first = 0;
        Range(first, last_);
    }
    bool Ready() const { return newer_ && range_; }

    template <typename Use>
    void Look(Use use) {
        std::int64_t first = 0;
        std::int64_t newest = 0;
        if (!Range(first, newest) || newest <= last_) return;
        if (first > last_ + 1) {
            use(std::string("/"));  // some were dropped before this process saw them
            last_ = newest;
            return;
        }
        newer_.Bind(1, last_);
        while (newer_.Row()) {
            last_ = newer_.Number(0);
            if (newer_.Number(1) != origin_) use(newer_.Text(2));
        }
        newer_.Reset();
    }

  private:
    bool Range(std::int64_t& first, std::int64_t& newest) {
        if (!range_) return false;
        const bool found = range_.Row();
        if (found) {
            first = range_.Number(0);
            newest = range_.Number(1);
        }
        range_.Reset();
        return found;
    }

    const std::int64_t origin_;
    sqlite::Connection database_;
    sqlite::Statement newer_;
    sqlite::Statement range_;
    std::int64_t last_ = 0;
};

Watches::Watches() = default;

Watches& Watches::Instance() {
    static Watches& watches = *new Watches;
    return watches;
}

bool Watches::StartWatcher(std::int64_t origin) {
    if (thread_.joinable()) return true;
    auto reader = std::make_unique<ChangeReader>(origin);
    if (!reader->Ready()) return false;
    {
        const std::lock_guard lock(readerMutex_);
        reader_ = std::move(reader);
    }
    stop_ = false;
    thread_ = std::thread([this] { WatchStore(); });
    return true;
}

void Watches::StopWatcher() {
    if (!thread_.joinable()) return;
    stop_ = true;
    Sequence::Instance().Raise();
    thread_.join();
    const std::lock_guard lock(readerMutex_);
    reader_.reset();
}

// For those who wait on a watch's event; who only looks catches up by itself.
void Watches::WatchStore() {
    Sequence& sequence = Sequence::Instance();
    while (!stop_) {
        const std::uint32_t seen = sequence.Now();
        const bool found = CatchUp();
        // A writer that was killed before it could tell: its change is told in its place, so that
        // those who look go by the count alone.
        if (found && sequence.Now() == told_) sequence.Raise();
        told_ = seen;
        sequence.WaitForChange(seen);
    }
}

bool Watches::CatchUp() {
    const std::lock_guard lock(readerMutex_);
    bool found = false;
    if (reader_ == nullptr) return found;
    reader_->Look([this, &found](const std::string& path) {
        found = true;
        Fire(path);
        if (listener_) listener_(path);
    });
    return found;
}

bool Watches::Look(PlacedWatch& watch) {
    const std::uint32_t now = Sequence::Instance().Now();
    if (watch.seen.load(std::memory_order_relaxed) == now) return false;
    CatchUp();
    // In this order: a change that comes in between raises the count again.
    watch.seen.store(now, std::memory_order_relaxed);
    return watch.changed.exchange(false);
}

void Watches::Announce(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) Fire(path);
    Sequence::Instance().Raise();
}

PlacedWatch* Watches::Place(const std::string& key, std::int64_t origin) {
    const std::lock_guard threadLock(threadMutex_);
    if (!StartWatcher(origin)) return nullptr;
    const std::lock_guard lock(mutex_);
    auto watch = std::make_unique<PlacedWatch>();
    std::snprintf(watch->name, sizeof watch->name, "Trelis.Notify.%d.%d",
                  static_cast<int>(getpid()), ++nextName_);
    watch->key = key;
    watch->event.Reset(CreateEventA(nullptr, TRUE, FALSE, watch->name));
    if (!watch->event) return nullptr;
    watch->seen = Sequence::Instance().Now();
    watches_.push_back(std::move(watch));
    return watches_.back().get();
}

void Watches::Cancel(const char* name) {
    const std::lock_guard threadLock(threadMutex_);
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::find_if(
            watches_.begin(), watches_.end(),
            [name](const std::unique_ptr<PlacedWatch>& watch) { return watch->name == name; });
        if (found == watches_.end()) return;
        (*found)->event.Reset();
        cancelled_.push_back(std::move(*found));
        watches_.erase(found);
        last = watches_.empty();
    }
    if (last) StopWatcher();
}

void Watches::Fire(const std::string& changed) {
    const std::lock_guard lock(mutex_);
    for (const std::unique_ptr<PlacedWatch>& watch : watches_) {
        if (!Concerns(changed, watch->key)) continue;
        watch->changed.store(true, std::memory_order_release);
        SetEvent(watch->event.Get());
    }
}

}  // namespace trelis
