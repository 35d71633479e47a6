// trelis/: the configuration store, a tree of text values kept in one SQLite file of the instance's
// directory (store.db, WAL mode), opened by every process through the operations below. No daemon
// is needed.
//
// A key is an absolute path of components joined by '/', below 512 bytes. It can hold a value and
// have children at the same time; a key made only as a parent reads as an empty value. `store` is
// the IPv4 address of the machine whose store is meant, in host byte order: kLocalStore is this
// instance's, any other address another host's, of which TrelisGetValue reads what that host lets
// others read (trelis/remote.h); all else on it gives a negative result. All operations may be
// called from any thread. On a store that can't be opened all fail harmlessly.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t kLocalStore = 0x7F000001;

// A walk over a key's children; null: none.
struct TrelisEnumState;
using TrelisEnum = TrelisEnumState*;
// A watch. It is at the same time the name of an event (CreateEventA) of this process that is set
// at each change. Null: none.
using TrelisNotify = const char*;

// Opens the store, or adds a reference. 0, or negative on failure.
int TrelisInit2();
// Gives back one reference; the last one closes the store.
void TrelisUninit();

// Copies the value, zero-terminated and cut to size, into buffer. 0, or negative (missing key):
// buffer as it was. A read of another host's store ends after 2 s.
int TrelisGetValue(std::uint32_t store, const char* key, char* buffer, int size);
// Stores the value, making the key and its parents. 0, or negative.
int TrelisSetValue(std::uint32_t store, const char* key, const char* value);
// Deletes the key and all below it. 0 (also if there was none), or negative.
int TrelisDelKey(std::uint32_t store, const char* key);

// Starts a walk over the direct children, in byte order of their names, as they are now. Null for a
// key that doesn't exist. The caller ends it with TrelisEnumClose.
TrelisEnum TrelisEnumOpen(std::uint32_t store, const char* key);
// The next child's name (one component). 0; non-zero at the end or if it doesn't fit.
int TrelisEnumRead(std::uint32_t store, TrelisEnum walk, char* buffer, int size);
void TrelisEnumClose(std::uint32_t store, TrelisEnum walk);

// Starts watching the key and everything below it; flag is always 1. A change made by any process
// is seen by a look at the watch as soon as the writer's TrelisSetValue has returned, and sets the
// event within a few milliseconds (this process's own change at once).
TrelisNotify TrelisPlaceNotify(std::uint32_t store, const char* key, int flag);
// 1 if a change has come since the last look, else 0; negative for a null watch. Costs one atomic
// load as long as nothing changes in the store. `time` is always 0.
int TrelisWaitNotify(std::uint32_t store, TrelisNotify watch, int time);
// Ends the watch; a late look finds no change. Null is accepted.
void TrelisCancelNotify(std::uint32_t store, const char* key, int flag, TrelisNotify watch);
