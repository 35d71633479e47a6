#include "trelis/trelis.h"

#include <cstring>

#include "platform/home.h"
#include "trelis/admin.h"
#include "trelis/keys/settings.h"
#include "trelis/opening.h"
#include "trelis/remote.h"
#include "trelis/store.h"
#include "trelis/watches.h"

using trelis::PlacedWatch;
using trelis::Store;
using trelis::Watches;

struct TrelisEnumState {
    std::vector<std::string> names;
    std::size_t next = 0;
};

namespace {

constexpr int kFailed = -1;

struct Shared {
    std::mutex mutex;
    int references = 0;            // guarded by mutex
    std::shared_ptr<Store> store;  // guarded by mutex
    std::string why;               // guarded by mutex: why it could not be opened
};
Shared& State() {
    static Shared& state = *new Shared;  // never destroyed: threads may outlive the statics
    return state;
}

// The store, kept alive for one operation; null if it isn't open, or another host's is meant.
std::shared_ptr<Store> Opened(std::uint32_t store) {
    if (store != kLocalStore) return nullptr;
    const std::lock_guard lock(State().mutex);
    return State().store;
}

// Runs an operation on the open store; without one, and whatever fails inside, the result is
// `failed`.
template <typename Result, typename Operation>
Result With(std::uint32_t store, Result failed, Operation operation) {
    try {
        const std::shared_ptr<Store> opened = Opened(store);
        return opened == nullptr ? failed : operation(*opened);
    } catch (const std::exception&) {
        return failed;
    }
}

int CopyOut(const std::string& text, char* buffer, int size) {
    if (buffer == nullptr || size < 1) return kFailed;
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
    return 0;
}

bool Delete(Store& opened, const std::vector<std::string>& keys, bool prune) {
    std::vector<std::string> there;
    for (const std::string& key : keys) {
        if (opened.Get(key)) there.push_back(key);
    }
    if (!opened.Delete(keys, prune)) return false;
    if (!there.empty()) Watches::Instance().Announce(there);
    return true;
}

constexpr trelis::Key kRemotePort{trelis::kStoreKey, "Port"};

int GetRemote(std::uint32_t store, const char* key, char* buffer, int size) {
    try {
        const std::optional<std::string> value = trelis::RemoteGetValue(
            store, static_cast<std::uint16_t>(trelis::ReadInt(kRemotePort)), key);
        return value ? CopyOut(*value, buffer, size) : kFailed;
    } catch (const std::exception&) {
        return kFailed;
    }
}

}  // namespace

namespace {

int Init(sqlite::Connection (*open)(std::string& why)) {
    try {
        const std::lock_guard lock(State().mutex);
        std::string& why = State().why;
        if (State().store == nullptr) State().store = Store::Make(open(why), why);
        if (State().store == nullptr) return kFailed;
        ++State().references;
        return 0;
    } catch (const std::exception&) {
        return kFailed;
    }
}

}  // namespace

int TrelisInit2() { return Init(trelis::OpenDatabase); }

void TrelisUninit() {
    const std::lock_guard lock(State().mutex);
    if (State().references > 0 && --State().references == 0) State().store.reset();
}

int TrelisGetValue(std::uint32_t store, const char* key, char* buffer, int size) {
    if (key == nullptr) return kFailed;
    if (store != kLocalStore) return GetRemote(store, key, buffer, size);
    return With(store, kFailed, [&](Store& opened) {
        const std::optional<std::string> value = opened.Get(key);
        return value ? CopyOut(*value, buffer, size) : kFailed;
    });
}

int TrelisSetValue(std::uint32_t store, const char* key, const char* value) {
    if (key == nullptr || value == nullptr) return kFailed;
    return With(store, kFailed, [&](Store& opened) {
        if (!opened.Set({{key, value}})) return kFailed;
        Watches::Instance().Announce({key});
        return 0;
    });
}

int TrelisDelKey(std::uint32_t store, const char* key) {
    if (key == nullptr) return kFailed;
    return With(store, kFailed,
                [&](Store& opened) { return Delete(opened, {key}, false) ? 0 : kFailed; });
}

TrelisEnum TrelisEnumOpen(std::uint32_t store, const char* key) {
    if (key == nullptr) return nullptr;
    return With(store, static_cast<TrelisEnum>(nullptr), [&](Store& opened) {
        auto names = opened.Children(key);
        return names ? new TrelisEnumState{std::move(*names)} : nullptr;
    });
}

int TrelisEnumRead(std::uint32_t, TrelisEnum walk, char* buffer, int size) {
    if (walk == nullptr || walk->next >= walk->names.size()) return kFailed;
    const std::string& name = walk->names[walk->next++];
    if (size < 1 || name.size() >= static_cast<std::size_t>(size)) return kFailed;
    return CopyOut(name, buffer, size);
}

void TrelisEnumClose(std::uint32_t, TrelisEnum walk) { delete walk; }

TrelisNotify TrelisPlaceNotify(std::uint32_t store, const char* key, int) {
    if (key == nullptr || !trelis::ValidPath(key, true)) return nullptr;
    return With(store, static_cast<TrelisNotify>(nullptr), [&](Store& opened) -> TrelisNotify {
        const PlacedWatch* watch = Watches::Instance().Place(key, opened.Origin());
        return watch == nullptr ? nullptr : watch->name;
    });
}

int TrelisWaitNotify(std::uint32_t, TrelisNotify watch, int) {
    if (watch == nullptr) return kFailed;
    static_assert(offsetof(PlacedWatch, name) == 0);
    auto* record = reinterpret_cast<PlacedWatch*>(const_cast<char*>(watch));
    return Watches::Instance().Look(*record) ? 1 : 0;
}

void TrelisCancelNotify(std::uint32_t, const char*, int, TrelisNotify watch) {
    if (watch != nullptr) Watches::Instance().Cancel(watch);
}

namespace trelis {

int InitToRead() { return Init(OpenToRead); }

std::string WhyNotOpen() {
    const std::string path = StorePath();
    if (path.empty()) return platform::HomeError();
    const std::lock_guard lock(State().mutex);
    const std::string& why = State().why;
    return "can't open the store " + path + (why.empty() ? "" : ": " + why);
}

std::string WhyNotChanged(const std::string& otherwise) {
    const std::string why =
        With(kLocalStore, std::string(), [](Store& opened) { return opened.Failure(); });
    return why.empty() ? otherwise : StorePath() + ": " + why;
}

std::optional<Values> DumpTree(const std::string& key) {
    return With(kLocalStore, std::optional<Values>(),
                [&](Store& opened) { return opened.Dump(key); });
}

bool LoadValues(const Values& values) {
    return With(kLocalStore, false, [&](Store& opened) {
        if (!opened.Set(values)) return false;
        std::vector<std::string> paths;
        for (const auto& [key, value] : values) paths.push_back(key);
        Watches::Instance().Announce(paths);
        return true;
    });
}

bool DeleteTrees(const std::vector<std::string>& keys, bool prune) {
    return With(kLocalStore, false, [&](Store& opened) { return Delete(opened, keys, prune); });
}

Applied ApplyChanges(const std::vector<ValueChange>& changes, bool force, std::int64_t undoes,
                     std::string& where) {
    return With(kLocalStore, Applied::kFailed, [&](Store& opened) {
        const Applied applied = opened.Apply(changes, force, undoes, where);
        if (applied != Applied::kDone) return applied;
        std::vector<std::string> paths;
        paths.reserve(changes.size());
        for (const ValueChange& change : changes) paths.push_back(change.path);
        Watches::Instance().Announce(paths);
        return applied;
    });
}

void KeepHistory(const std::string& who, const std::string& how) {
    With(kLocalStore, false, [&](Store& opened) {
        opened.KeepHistory(who, how);
        return true;
    });
}

std::optional<std::vector<Act>> ReadHistory() {
    return With(kLocalStore, std::optional<std::vector<Act>>(),
                [](Store& opened) { return opened.ReadHistory(); });
}

std::optional<std::vector<std::string>> ListChildren(const std::string& key) {
    return With(kLocalStore, std::optional<std::vector<std::string>>(),
                [&](Store& opened) { return opened.Children(key); });
}

std::int64_t CountChanges() {
    return With(kLocalStore, std::int64_t{-1}, [](Store& opened) { return opened.Changes(); });
}

bool FollowChanges(std::function<void(const std::string& path)> use) {
    Watches::Instance().SetListener(std::move(use));
    return TrelisPlaceNotify(kLocalStore, "/", 1) != nullptr;
}

}  // namespace trelis
