#include "libstats/tables.h"

#include <cstdlib>

namespace {

bool IsSpace(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

const char* SkipSpace(const char* text) {
    while (IsSpace(*text)) ++text;
    return text;
}

// Reads a count and moves on; 0 if there is none or no text follows it.
long NextCount(const char*& text) {
    if (text == nullptr) return 0;
    char word[kWordSize];
    text = NextToken(text, word);
    return text == nullptr ? 0 : std::strtol(word, nullptr, 10);
}

// Reads one row; false if the text runs out before it is complete, or if it stays without a cell.
bool ReadRow(const char*& text, long columns, ReportRow& row) {
    char word[kWordSize];
    for (long column = 0; column < columns; ++column) {
        if (text == nullptr) return false;
        text = NextToken(text, word);
        if (word[0] != '\0') row.emplace_back(word);
    }
    return !row.empty();
}

bool ReadTable(const char*& text, ReportTable& table) {
    const long rows = NextCount(text);
    if (rows < 1) return false;
    const long columns = NextCount(text);
    if (columns < 1) return false;
    // Nothing is sized by what the text claims: the rows come as they are read.
    for (long i = 0; i < rows; ++i) {
        ReportRow row;
        if (!ReadRow(text, columns, row)) return false;
        table.push_back(std::move(row));
    }
    return true;
}

}  // namespace

const char* NextToken(const char* text, char (&word)[kWordSize]) {
    std::size_t length = 0;
    bool quoting = false;
    bool escaped = false;  // behind an odd number of backslashes
    for (text = SkipSpace(text); *text != '\0'; ++text) {
        if (*text == '"' && !escaped) {
            if (quoting) {
                ++text;
                break;
            }
            quoting = true;
            continue;
        }
        if (!quoting && IsSpace(*text)) break;
        escaped = *text == '\\' && !escaped;
        if (length < kWordSize - 1) word[length++] = *text;
    }
    word[length] = '\0';
    text = SkipSpace(text);
    return *text == '\0' ? nullptr : text;
}

std::unique_ptr<ReportTables> ParseTables(const char* text) {
    try {
        auto tables = std::make_unique<ReportTables>();
        for (;;) {
            ReportTable table;
            if (!ReadTable(text, table)) return tables;
            tables->push_back(std::move(table));
        }
    } catch (const std::exception&) {
        return nullptr;
    }
}
