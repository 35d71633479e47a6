// Typed reads of the configuration, by the table of keys: bounds and defaults stand there. All
// programs read by these. A value that can't be used as it is, a number with text behind it too, is
// told on standard error, once for each value of a key. Any thread; std::bad_alloc is all they
// throw.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "trelis/keys/rows.h"
#include "trelis/trelis.h"

namespace trelis {

// A key of the table, found while the program is compiled: one that isn't there is an error then.
class Key {
  public:
    consteval Key(std::string_view root, std::string_view name)
        : section_(&Find(root, name)), row_(Find(*section_, name)) {}

    const KeyRow& Row() const { return *row_; }
    int Width() const { return row_->width == 0 ? section_->width : row_->width; }
    // The key with names in the place of its '*'s, one after the other; those too many are dropped.
    std::string Path(std::initializer_list<std::string_view> names = {}) const;
    // The key above the first '*' that `names` leave over.
    std::string ListPath(std::initializer_list<std::string_view> names = {}) const;

  private:
    // A root may have several sections.
    static consteval const KeySection& Find(std::string_view root, std::string_view name) {
        for (const KeySection& section : kKeySections) {
            if (section.root == root && Has(section, name)) return section;
        }
        throw "the table has no such key";
    }
    // Not by comparing what Find gives with null: the sanitizers' build takes that for no constant.
    static consteval bool Has(const KeySection& section, std::string_view name) {
        for (const KeyRow& row : section.rows) {
            if (row.name == name) return true;
        }
        return false;
    }
    static consteval const KeyRow* Find(const KeySection& section, std::string_view name) {
        for (const KeyRow& row : section.rows) {
            if (row.name == name) return &row;
        }
        return nullptr;
    }

    const KeySection* section_;
    const KeyRow* row_;
};
using Names = std::initializer_list<std::string_view>;

// The value as it is, cut to the row's width. Nothing for a missing key.
std::optional<std::string> ReadIfGiven(const Key& key, Names names = {},
                                       std::uint32_t store = kLocalStore);
std::string ReadText(const Key& key, Names names = {});
// As ReadText; a text without the row's form counts as missing. For what becomes a line elsewhere.
std::string ReadFormed(const Key& key, Names names = {});
// As ReadText, cut in front of the first control character; the default, if that is where it
// begins. For a text that stands in a line as it is.
std::string ReadLine(const Key& key, Names names = {});
long long ReadNumber(const Key& key, Names names = {}, std::uint32_t store = kLocalStore);
// The number is one of an int by its bounds.
int ReadInt(const Key& key, Names names = {}, std::uint32_t store = kLocalStore);
// Bytes; nothing if the key says none and has no default.
std::optional<long long> ReadSize(const Key& key, Names names = {});
// The position of the word among the row's.
int ReadChoice(const Key& key, Names names = {});
bool ReadFlag(const Key& key, Names names = {});

// From now on this process tells nothing of values that can't be used: for a program that judges
// all of them by itself.
void ReadQuietly();

// A walk over the names that stand for the first '*' that `names` leave over, in the store's order.
// A missing key has none; names whose path would be too long are passed over.
class NameWalk {
  public:
    NameWalk(const Key& key, Names names = {});
    NameWalk(const NameWalk&) = delete;
    NameWalk& operator=(const NameWalk&) = delete;
    ~NameWalk() { TrelisEnumClose(kLocalStore, walk_); }

    // False at the end.
    bool Next(std::string& name);

  private:
    const std::size_t parentLength_;
    const TrelisEnum walk_;
};

}  // namespace trelis
