#include "trelis/watches.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "platform/home.h"

namespace trelis {
namespace {

// The journal is written before a change becomes visible: after a sign of life it is looked at
// several times. The last interval goes on for the case that a writer was killed in between, or a
// sign was lost.
constexpr std::array<int, 6> kLooks{0, 2, 5, 10, 20, 40};
constexpr int kIdleLook = 1000;

// Finds the rows that other processes have written since the last look.
class ChangeReader {
  public:
    explicit ChangeReader(std::int64_t origin) : origin_(origin), database_(OpenDatabase()) {
        if (database_ == nullptr) return;
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(database_.get(),
                           "SELECT id, origin, path FROM changes WHERE id > ? ORDER BY id", -1,
                           &statement, nullptr);
        newer_.reset(statement);
        sqlite3_prepare_v2(database_.get(), "SELECT min(id), max(id) FROM changes", -1, &statement,
                           nullptr);
        range_.reset(statement);
        std::int64_t first = 0;
        Range(first, last_);
    }
    bool Ready() const { return newer_ != nullptr && range_ != nullptr; }

    template <typename Use>
    void Look(Use use) {
        std::int64_t first = 0;
        std::int64_t newest = 0;
        if (!Range(first, newest) || newest <= last_) return;
        if (first > last_ + 1 && last_ != 0) {
            use(std::string("/"));  // some were dropped before this process saw them
            last_ = newest;
            return;
        }
        sqlite3_bind_int64(newer_.get(), 1, last_);
        while (sqlite3_step(newer_.get()) == SQLITE_ROW) {
            last_ = sqlite3_column_int64(newer_.get(), 0);
            const auto* path = reinterpret_cast<const char*>(sqlite3_column_text(newer_.get(), 2));
            if (path != nullptr && sqlite3_column_int64(newer_.get(), 1) != origin_)
                use(std::string(path));
        }
        sqlite3_reset(newer_.get());
    }

  private:
    bool Range(std::int64_t& first, std::int64_t& newest) {
        if (range_ == nullptr) return false;
        const bool found = sqlite3_step(range_.get()) == SQLITE_ROW;
        if (found) {
            first = sqlite3_column_int64(range_.get(), 0);
            newest = sqlite3_column_int64(range_.get(), 1);
        }
        sqlite3_reset(range_.get());
        return found;
    }

    const std::int64_t origin_;
    Database database_;
    Statement newer_;
    Statement range_;
    std::int64_t last_ = 0;
};

bool TouchesStore(int inotify) {
    alignas(inotify_event) char buffer[4096];
    bool touched = false;
    for (ssize_t length = 0; (length = read(inotify, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            touched = touched || event->len == 0 || std::strncmp(event->name, "store.db", 8) == 0;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    return touched;
}

void WatchStore(int stop, const std::shared_ptr<ChangeReader>& reader,
                const std::function<void(const std::string&)>& use) {
    const int inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    inotify_add_watch(inotify, platform::Home().c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO);
    std::size_t look = kLooks.size();
    for (;;) {
        pollfd descriptors[] = {{stop, POLLIN, 0}, {inotify, POLLIN, 0}};
        const int wait = look < kLooks.size() ? kLooks[look] : kIdleLook;
        const int ready = poll(descriptors, 2, wait);
        if (descriptors[0].revents != 0) break;
        const bool signs = ready > 0 && (descriptors[1].revents & POLLIN) != 0;
        if (signs && !TouchesStore(inotify)) continue;
        look = signs ? 1 : std::min(look + 1, kLooks.size());
        reader->Look(use);
    }
    close(inotify);
    close(stop);
}

}  // namespace

Watches& Watches::Instance() {
    static Watches& watches = *new Watches;
    return watches;
}

bool Watches::StartWatcher(std::int64_t origin) {
    if (thread_.joinable()) return true;
    auto reader = std::make_shared<ChangeReader>(origin);
    stopDescriptor_ = eventfd(0, EFD_CLOEXEC);
    const int stop = stopDescriptor_ < 0 ? -1 : dup(stopDescriptor_);
    if (!reader->Ready() || stop < 0) {
        if (stopDescriptor_ >= 0) close(stopDescriptor_);
        stopDescriptor_ = -1;
        return false;
    }
    thread_ = std::thread([this, stop, reader] {
        WatchStore(stop, reader, [this](const std::string& path) {
            Fire(path);
            if (listener_) listener_(path);
        });
    });
    return true;
}

void Watches::StopWatcher() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stopDescriptor_, &one, sizeof one);
    thread_.join();
    close(stopDescriptor_);
    stopDescriptor_ = -1;
}

Watch* Watches::Place(const std::string& key, std::int64_t origin) {
    const std::lock_guard threadLock(threadMutex_);
    if (!StartWatcher(origin)) return nullptr;
    const std::lock_guard lock(mutex_);
    auto watch = std::make_unique<Watch>();
    std::snprintf(watch->name, sizeof watch->name, "Trelis.Notify.%d.%d",
                  static_cast<int>(getpid()), ++nextName_);
    watch->key = key;
    watch->event.Reset(CreateEventA(nullptr, TRUE, FALSE, watch->name));
    if (!watch->event) return nullptr;
    watches_.push_back(std::move(watch));
    return watches_.back().get();
}

void Watches::Cancel(const char* name) {
    const std::lock_guard threadLock(threadMutex_);
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(watches_,
                      [name](const std::unique_ptr<Watch>& watch) { return watch->name == name; });
        last = watches_.empty();
    }
    if (last) StopWatcher();
}

void Watches::Fire(const std::string& changed) {
    const std::lock_guard lock(mutex_);
    for (const std::unique_ptr<Watch>& watch : watches_) {
        if (!Concerns(changed, watch->key)) continue;
        watch->changed.store(true, std::memory_order_release);
        SetEvent(watch->event.Get());
    }
}

}  // namespace trelis
