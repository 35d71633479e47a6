#include "daemons/registryd/changes/form.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "daemons/registryd/typed.h"
#include "text/printable.h"
#include "text/trim.h"
#include "trelis/admin.h"
#include "trelis/keys/check.h"
#include "trelis/keys/names.h"

namespace {

constexpr std::string_view kBlanks = " \t\r";

// Whether it can stand in a line as it is.
bool IsPlain(const std::string& value) {
    return Trimmed(value, kBlanks) == value && CleanText(value) == value &&
           !value.starts_with('"') && !value.empty();
}

// Nothing for a value that is no text that an editor could show.
std::optional<std::string> Written(const std::string& value) {
    if (IsPlain(value)) return value;
    try {
        return nlohmann::json(value).dump();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::optional<std::string> AsWritten(std::string_view text) {
    if (!text.starts_with('"')) return std::string(text);
    const nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
    return value.is_string() ? std::optional(value.get<std::string>()) : std::nullopt;
}

// What stands below it, and what is to be edited: an interface may be a new one.
std::vector<std::string> NamesBelow(const std::string& above, const std::string& path) {
    auto names = trelis::ListChildren(above).value_or(std::vector<std::string>{});
    if (path.size() > above.size() + 1 && path.starts_with(above + '/')) {
        std::string name = path.substr(above.size() + 1);
        name.resize(std::min(name.find('/'), name.size()));
        if (std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(std::move(name));
    }
    return names;
}

void WriteKey(std::string& text, const std::string& name, const std::string& value) {
    const auto written = Written(value);
    text += written ? name + " = " + *written + '\n'
                    : "# " + name + " holds bytes that are no text, and stays as it is.\n";
}

class Reader {
  public:
    Reader(const ConfigurationValues& before, const std::string& path)
        : before_(before), path_(path) {}

    void Line(int number, std::string_view line) {
        line = Trimmed(line, kBlanks);
        if (line.empty() || line.front() == '#') return;
        const std::string complaint = Take(line);
        if (!complaint.empty())
            read_.complaints.push_back("line " + std::to_string(number) + ": " + complaint);
    }
    // What can't be shown stays.
    ReadForm Finish() {
        for (const auto& [path, value] : before_) {
            if (IsAtOrBelow(path, path_) && !Written(value)) read_.values.emplace(path, value);
        }
        return std::move(read_);
    }

  private:
    // Empty, or what is wrong.
    std::string Take(std::string_view line) {
        // Values hold '=', names of people's choice may.
        const std::size_t equals = line.find(" = ");
        const std::size_t at = equals == std::string_view::npos ? line.find('=') : equals + 1;
        if (at == std::string_view::npos) return "KEY = VALUE is wanted";
        const std::string name(Trimmed(line.substr(0, at), kBlanks));
        const auto value = AsWritten(Trimmed(line.substr(at + 1), kBlanks));
        if (!value) return name + ": the quotes don't fit";
        const auto key =
            name.starts_with('/') ? trelis::FindByPath(name) : trelis::FindByShortName(name);
        const std::string path = name.starts_with('/') ? name : key ? key->Path() : "";
        const auto old = before_.find(path);
        const bool unchanged = old != before_.end() && old->second == *value;
        if (!key && !unchanged) {
            const std::string nearest = trelis::NearestName(name);
            return "no program reads " + name + (nearest.empty() ? "" : "; meant: " + nearest);
        }
        if (!IsAtOrBelow(path, path_)) return name + " is not a part of what is edited";
        if (key && std::find(key->names.begin(), key->names.end(), "*") != key->names.end())
            return name + ": a name of your choice has to stand in the place of the *";
        if (!seen_.insert(path).second) return name + " stands there twice";
        const std::string taken = unchanged ? *value : trelis::AsRead(*key->row, *value);
        const auto wanted =
            unchanged ? std::nullopt : trelis::WantedInstead(*key->section, *key->row, taken);
        if (wanted) return name + " can't be \"" + *value + "\": it should be " + *wanted;
        read_.values[path] = taken;
        return "";
    }

    const ConfigurationValues& before_;
    const std::string& path_;
    std::set<std::string> seen_;
    ReadForm read_;
};

}  // namespace

std::string WriteForm(const ConfigurationValues& values, const std::string& path) {
    std::string text =
        "# What stands here when the editor ends counts at once, all or none of it. A line that "
        "is\n"
        "# taken out takes its key's value away. What is in a comment is not set; its default\n"
        "# counts. Nothing changes if the file is saved as it is.\n";
    const auto names = [&](const std::string& above) { return NamesBelow(above, path); };
    trelis::ForEachKnownKey(names, [&](const trelis::KnownKey& key) {
        const std::string at = key.Path();
        if (!IsAtOrBelow(at, path) || key.row->kind == trelis::KeyKind::kWritten) return;
        text += "\n# " + std::string(key.row->meaning) + '\n';
        if (const auto found = values.find(at); found != values.end())
            return WriteKey(text, key.ShortName(), found->second);
        text += "# " + key.ShortName() + " = " + trelis::DefaultInWords(*key.row) + '\n';
    });
    bool first = true;
    for (const auto& [at, value] : values) {
        if (!IsAtOrBelow(at, path) || trelis::FindByPath(at)) continue;
        if (value.empty() && trelis::StandsAboveKeys(at)) continue;
        if (std::exchange(first, false)) text += "\n# No program reads these.\n";
        WriteKey(text, at, value);
    }
    return text;
}

ReadForm ParseForm(const std::string& text, const ConfigurationValues& before,
                   const std::string& path) {
    Reader reader(before, path);
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) reader.Line(number, line);
    return reader.Finish();
}
