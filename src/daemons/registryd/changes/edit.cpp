#include "daemons/registryd/changes/edit.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "daemons/registryd/changes/form.h"
#include "daemons/registryd/changes/history.h"
#include "platform/descriptor.h"
#include "platform/file.h"
#include "platform/home.h"
#include "text/printable.h"
#include "trelis/admin.h"
#include "trelis/keys/names.h"

namespace {

bool IsBlank(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

// A file for its owner alone, which goes with its owner here unless it is left.
class EditedFile {
  public:
    EditedFile() : path_(platform::HomePath("tmp/vtregistry-XXXXXX.conf")) {
        constexpr int kSuffix = 5;
        if (!path_.empty()) descriptor_.Reset(mkstemps(path_.data(), kSuffix));
    }
    EditedFile(const EditedFile&) = delete;
    EditedFile& operator=(const EditedFile&) = delete;
    ~EditedFile() {
        if (descriptor_ && !left_) unlink(path_.c_str());
    }

    const std::string& Path() const { return path_; }
    bool Write(const std::string& text) {
        if (!descriptor_) return false;
        form_ = text;
        std::ofstream file(path_, std::ios::binary | std::ios::trunc);
        file << text << std::flush;
        return static_cast<bool>(file);
    }
    // By its name: editors put new files in the place of old ones.
    std::optional<std::string> Read() const {
        // Who reads a pipe would wait for somebody who writes to it.
        const auto state = platform::LookAtFile(path_);
        if (!state || !state->plain) return std::nullopt;
        std::ifstream file(path_, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return file.is_open() ? std::optional(text.str()) : std::nullopt;
    }

    // It stays, and the person is told where, if there is anything of hers in it.
    void Leave() {
        const auto text = Read();
        if (left_ || !text || *text == form_ || IsBlank(*text)) return;
        left_ = true;
        std::cerr << "vtregistry: what you wrote is in " << CleanText(path_) << std::endl;
    }
    // It is edited again.
    void TakeBack() { left_ = false; }

  private:
    std::string path_;
    std::string form_;  // as it was before the person had it
    bool left_ = false;
    platform::UniqueDescriptor descriptor_;
};

// While it lives Ctrl-C is the editor's alone: what it leaves behind has still to be looked after.
class SignalsOfTheEditor {
  public:
    SignalsOfTheEditor() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            sigaction(kSignals[i], &ignore, &before_[i]);
    }
    SignalsOfTheEditor(const SignalsOfTheEditor&) = delete;
    SignalsOfTheEditor& operator=(const SignalsOfTheEditor&) = delete;
    ~SignalsOfTheEditor() { Restore(); }

    // For the editor's process.
    void Restore() const {
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            sigaction(kSignals[i], &before_[i], nullptr);
    }

  private:
    static constexpr std::array kSignals{SIGINT, SIGQUIT};
    std::array<struct sigaction, kSignals.size()> before_{};
};

const char* Editor() {
    for (const char* name : {"VISUAL", "EDITOR"}) {
        const char* const editor = std::getenv(name);
        if (editor != nullptr && *editor != '\0') return editor;
    }
    return access("/usr/bin/editor", X_OK) == 0 ? "/usr/bin/editor" : "vi";
}

// Whether it has ended well. The shell takes the variable apart, which may have words behind it.
bool RunEditor(const std::string& path) {
    const std::string command = std::string(Editor()) + " \"$1\"";
    const SignalsOfTheEditor signals;
    const pid_t child = fork();
    if (child == 0) {
        signals.Restore();
        execl("/bin/sh", "sh", "-c", command.c_str(), "editor", path.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

bool WantsToGoOn() {
    if (isatty(STDIN_FILENO) == 0) return false;
    std::cerr << "Go on editing? [Y/n] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) && (answer.empty() || (answer[0] | 0x20) == 'y');
}

std::optional<ConfigurationValues> ValuesAt(const std::string& path) {
    const auto all = trelis::DumpTree("/");
    if (!all) return std::nullopt;
    ConfigurationValues values;
    for (const auto& [at, value] : *all) {
        const auto key = trelis::FindByPath(at);
        const bool written = key && key->row->kind == trelis::KeyKind::kWritten;
        if (!written && IsAtOrBelow(at, path)) values.emplace(at, value);
    }
    return values;
}

// What a form without a line for it says of a key above others that has no value of its own.
bool StaysWithoutALine(const std::string& path, const std::string& value) {
    return value.empty() && !trelis::FindByPath(path) && trelis::StandsAboveKeys(path);
}

std::vector<trelis::ValueChange> Changes(const ConfigurationValues& before,
                                         const ConfigurationValues& after) {
    std::vector<trelis::ValueChange> changes;
    for (const auto& [path, value] : before) {
        const auto found = after.find(path);
        if (found == after.end() && !StaysWithoutALine(path, value))
            changes.push_back({path, value, std::nullopt});
        else if (found != after.end() && found->second != value)
            changes.push_back({path, value, found->second});
    }
    for (const auto& [path, value] : after) {
        if (before.count(path) == 0) changes.push_back({path, std::nullopt, value});
    }
    return changes;
}

int Apply(const std::vector<trelis::ValueChange>& changes) {
    if (changes.empty()) {
        std::cout << "nothing was changed\n";
        return 0;
    }
    std::string where;
    switch (trelis::ApplyChanges(changes, false, 0, where)) {
        case trelis::Applied::kDone:
            break;
        case trelis::Applied::kOtherwise:
            return Failed(where + " was changed by somebody else meanwhile; nothing was changed");
        case trelis::Applied::kFailed:
            return Failed("can't store it; nothing was changed: " +
                          trelis::WhyNotChanged("the store has to be writable"));
    }
    for (const trelis::ValueChange& change : changes) std::cout << InWords(change) << '\n';
    return 0;
}

int EditUntilGood(EditedFile& file, const ConfigurationValues& before, const std::string& path) {
    for (;;) {
        if (!RunEditor(file.Path()))
            return Failed(std::string("the editor (") + Editor() +
                          ") has not ended well; nothing was changed. $EDITOR says which one.");
        const auto text = file.Read();
        if (!text) return Failed("can't read " + file.Path() + "; nothing was changed");
        // An editor whose disk is full leaves that, and nobody who takes all away takes the
        // comments.
        if (IsBlank(*text)) return Failed("the editor has left an empty file; nothing was changed");
        const ReadForm read = ParseForm(*text, before, path);
        if (read.complaints.empty()) return Apply(Changes(before, read.values));
        for (const std::string& each : read.complaints)
            std::cerr << "vtregistry: " << CleanText(each) << '\n';
        // Before the question, which Ctrl-C may answer.
        file.Leave();
        if (!WantsToGoOn()) return Failed("nothing was changed");
        file.TakeBack();
    }
}

}  // namespace

int Edit(const Arguments& arguments) {
    const auto path = PathOf(arguments[0]);
    if (!path) return kExitFailed;
    const auto before = ValuesAt(*path);
    if (!before) return Failed("can't read the store");
    EditedFile file;
    if (!file.Write(WriteForm(*before, *path)))
        return Failed("can't write " + (file.Path().empty() ? "a file" : file.Path()));
    const int code = EditUntilGood(file, *before, *path);
    if (code != 0) file.Leave();
    return code;
}
