// keys/: the table of keys, and what reads and writes by it. Every configuration key that a program
// reads or writes is one row of rows.h. The readers (settings.h), `register` (registration.h),
// `vtregistry keys`, the reference page, the manual page and the completion come from it, and code
// that names a key which isn't there doesn't compile.
#pragma once

#include <limits>
#include <span>
#include <string_view>

namespace trelis {

enum class KeyKind {
    kText,
    kNumber,  // decimal
    kSize,    // bytes, as trelis/size.h reads them
    kFlag,    // on if it begins with Y or y
    kChoice,  // one of several words
    kWritten  // by a program, for others to read
};

// The programs whose `register` writes keys.
enum class Program { kNone, kProxy, kMailDaemon, kLogger, kStatistics, kStore };

// What a number counts, where people write it with a unit: 25M, 10m, 2w.
enum class Unit { kNone, kBytes, kSeconds, kDays };

// What a number outside its bounds stands for.
enum class Beyond {
    kDefaultBelow,  // below: the default; above: the upper bound
    kDefault,
    kNearest,  // the bound that is next
    kMost      // the upper bound
};

// How a text has to look (forms.h).
struct TextForm {
    bool (*fits)(std::string_view text);  // of one that is not empty
    const char* wanted;                   // in words
};

inline constexpr long long kMostInt = std::numeric_limits<int>::max();
// Bytes. A limit of messages below that takes hardly any mail.
inline constexpr long long kLeastMail = 65536;
// A section's or a row's effect.
inline constexpr char kAtStart[] = "at the start";

struct KeyRow {
    const char* name;  // below its section's root; '*' stands for any one name
    KeyKind kind;
    const char* fallback;  // what a missing, empty or unusable value stands for
    const char* meaning;
    long long least = 1;  // of numbers and sizes
    long long most = kMostInt;
    Beyond beyond = Beyond::kDefaultBelow;
    int width = 0;                // bytes that are read, a zero byte included; 0: as the section
    bool emptyCounts = false;     // an empty text is a value
    bool registersList = false;   // `register` makes the key above its '*', for entries to come
    const char* shown = nullptr;  // the default in words, where `fallback` doesn't say it
    const char* registered = nullptr;  // what `register` writes; null: a default that is not empty
    const char* words =
        nullptr;  // of a choice, a '|' between two; of a text: those that mean something
    const char* unknown = nullptr;  // the word that any other stands for; null: the default
    const char* effect = nullptr;   // from when on a change counts, where the section differs
    Unit unit = Unit::kNone;        // of a number
    const char* alias = nullptr;    // its short name, where the rule's is ugly (names.h)
    // Bounds of what `vtregistry set` takes, where programs read more than makes sense; both 0: as
    // least and most. A 0 is taken besides where `least` is 0: it has a meaning of its own.
    long long saneLeast = 0;
    long long saneMost = 0;
    const TextForm* form = nullptr;  // of a text that has one

    template <typename Field>
    constexpr KeyRow With(Field KeyRow::*field, Field value) const {
        KeyRow row = *this;
        row.*field = value;
        return row;
    }

    constexpr KeyRow Width(int bytes) const { return With(&KeyRow::width, bytes); }
    constexpr KeyRow EmptyCounts() const { return With(&KeyRow::emptyCounts, true); }
    constexpr KeyRow RegistersList() const { return With(&KeyRow::registersList, true); }
    constexpr KeyRow OutOfBounds(Beyond what) const { return With(&KeyRow::beyond, what); }
    constexpr KeyRow Shown(const char* text) const { return With(&KeyRow::shown, text); }
    constexpr KeyRow Registers(const char* v) const { return With(&KeyRow::registered, v); }
    constexpr KeyRow Unknown(const char* word) const { return With(&KeyRow::unknown, word); }
    constexpr KeyRow Counts(const char* when) const { return With(&KeyRow::effect, when); }
    constexpr KeyRow In(Unit what) const { return With(&KeyRow::unit, what); }
    constexpr KeyRow Alias(const char* tail) const { return With(&KeyRow::alias, tail); }
    constexpr KeyRow Words(const char* all) const { return With(&KeyRow::words, all); }
    constexpr KeyRow Form(const TextForm& f) const { return With(&KeyRow::form, &f); }
    constexpr KeyRow Sane(long long from, long long to) const {
        return With(&KeyRow::saneLeast, from).With(&KeyRow::saneMost, to);
    }
};

struct RegisteredKey {
    Program program;
    const char* path;
    const char* value;
};

struct KeySection {
    const char* root;
    const char* brief;  // the root in short names: `maild`, `interface.*`
    const char* title;
    Program program;
    const char* effect;  // from when on a change counts
    std::span<const KeyRow> rows;
    int width = 512;  // of its rows
};

constexpr KeyRow Text(const char* name, const char* fallback, const char* meaning) {
    return {name, KeyKind::kText, fallback, meaning};
}
constexpr KeyRow Flag(const char* name, const char* meaning) {
    return KeyRow{name, KeyKind::kFlag, "", meaning}.Shown("off");
}
constexpr KeyRow Choice(const char* name, const char* fallback, const char* words,
                        const char* meaning) {
    return KeyRow{name, KeyKind::kChoice, fallback, meaning}.With(&KeyRow::words, words);
}
constexpr KeyRow Number(const char* name, const char* fallback, long long least, long long most,
                        const char* meaning) {
    return {name, KeyKind::kNumber, fallback, meaning, least, most};
}
constexpr KeyRow Seconds(const char* name, const char* fallback, long long least, long long most,
                         const char* meaning) {
    return Number(name, fallback, least, most, meaning).In(Unit::kSeconds);
}
constexpr KeyRow Size(const char* name, const char* fallback, long long least, long long most,
                      const char* meaning) {
    return {name, KeyKind::kSize, fallback, meaning, least, most};
}
constexpr KeyRow Written(const char* name, const char* meaning) {
    return KeyRow{name, KeyKind::kWritten, "", meaning}.Shown("written by the program");
}

}  // namespace trelis
