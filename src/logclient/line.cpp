#include "logclient/line.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace {

constexpr char kFieldMark = '\x1F';
constexpr char kEndMark = '\x1E';
constexpr char kKinds[] = {'s', 'm', 'k'};  // by LogLineKind

constexpr bool IsReserved(char c) { return c == '\0' || c == kFieldMark || c == kEndMark; }

void AppendNumber(std::string& out, std::int64_t value) {
    char digits[24];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, end);
}

}  // namespace

const char* LogLineWord(LogLineKind kind) {
    if (kind == LogLineKind::kQuarantine) return "quarantine";
    return kind == LogLineKind::kSession ? "session" : "message";
}

std::span<const LogLineField> LogLineFields(LogLineKind kind) {
    if (kind == LogLineKind::kSession) return kSessionLineFields;
    if (kind == LogLineKind::kQuarantine) return kQuarantineLineFields;
    return kMessageLineFields;
}

LogLineWriter::LogLineWriter(std::string& out, LogLineKind kind, std::int64_t time) : out_(out) {
    out_ += kKinds[static_cast<int>(kind)];
    AppendNumber(out_, time);
}

void LogLineWriter::Text(std::string_view value) {
    out_ += kFieldMark;
    const std::size_t at = out_.size();
    out_.append(value);
    std::replace_if(out_.begin() + static_cast<std::ptrdiff_t>(at), out_.end(), IsReserved, '?');
}

void LogLineWriter::Number(std::int64_t value) {
    out_ += kFieldMark;
    AppendNumber(out_, value);
}

void LogLineWriter::End() { out_ += kEndMark; }

bool LogLineReader::Next(std::string_view& lines) {
    const std::size_t end = lines.find(kEndMark);
    if (end == std::string_view::npos || end == 0) return false;
    rest_ = lines.substr(0, end);
    const auto* kind = std::find(std::begin(kKinds), std::end(kKinds), rest_.front());
    if (kind == std::end(kKinds)) return false;
    kind_ = static_cast<LogLineKind>(kind - kKinds);
    const auto [digits, error] =
        std::from_chars(rest_.data() + 1, rest_.data() + rest_.size(), time_);
    if (error != std::errc()) return false;
    rest_.remove_prefix(static_cast<std::size_t>(digits - rest_.data()));
    const auto fields =
        static_cast<std::size_t>(std::count(rest_.begin(), rest_.end(), kFieldMark));
    if (fields != LogLineFields(kind_).size() || !rest_.starts_with(kFieldMark)) return false;
    lines.remove_prefix(end + 1);
    return true;
}

std::string_view LogLineReader::Value() {
    if (rest_.empty()) return {};
    rest_.remove_prefix(1);
    const std::string_view value = rest_.substr(0, rest_.find(kFieldMark));
    rest_.remove_prefix(value.size());
    return value;
}
