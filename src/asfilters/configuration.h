// Inside asfilters/: how a filter reads its configuration.
//
// A key that can't be read takes its fallback, a child of a list that can't be read is skipped, and
// none of these functions fails otherwise than for want of memory (std::bad_alloc).
#pragma once

#include <string>

#include "trelis/trelis.h"

namespace asfilters {

// Bytes of a buffer for one value, zero byte included; a longer value is cut.
inline constexpr int kValueSize = 256;

// A filter's reference on the store and its watch on its root key, which must be a constant: both
// are held for the object's lifetime.
class ConfigurationWatch {
  public:
    explicit ConfigurationWatch(const char* root);
    ConfigurationWatch(const ConfigurationWatch&) = delete;
    ConfigurationWatch& operator=(const ConfigurationWatch&) = delete;
    ~ConfigurationWatch();

    const char* Root() const { return root_; }
    // True once per change, for whoever asks first. Costs one atomic load. Without a watch never.
    bool Changed() { return TrelisWaitNotify(kLocalStore, watch_, 0) == 1; }

  private:
    const char* const root_;
    const bool opened_;
    const TrelisNotify watch_;
};

// A walk over a key's direct children, in the store's order. A missing key has none.
class ChildWalk {
  public:
    explicit ChildWalk(const std::string& parent);
    ChildWalk(const ChildWalk&) = delete;
    ChildWalk& operator=(const ChildWalk&) = delete;
    ~ChildWalk() { TrelisEnumClose(kLocalStore, walk_); }

    // Puts the next child's full path into path. False at the end.
    bool Next(std::string& path);

  private:
    const std::string parent_;
    const TrelisEnum walk_;
};

// Whether the value's first byte is Y or y. A missing key is no.
bool ReadFlag(const std::string& key);
// The deny text below a filter's root key, without line end, at most 255 bytes; its fallback if the
// key is missing or empty.
std::string ReadDenyText(const std::string& root);
// As atoi, but a number outside an int is the nearest int.
int DecimalNumber(const char* text);

}  // namespace asfilters
