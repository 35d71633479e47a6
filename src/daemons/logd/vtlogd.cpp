// The logger daemon: one line for each event, session and message, to log/vtlogd.log below the
// instance's directory and to the system's log.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "daemons/frame/daemon.h"
#include "daemons/logd/describe.h"
#include "daemons/logd/log_file.h"
#include "daemons/logd/system_log.h"
#include "logclient/levels.h"
#include "ntservice/words.h"
#include "platform/home.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/settings.h"

namespace {

// Bytes of one log file; read at the start.
constexpr trelis::Key kMaxLogSize{trelis::kLoggerKey, "MaxLogSize"};
constexpr trelis::Key kFormat{trelis::kLoggerKey, "Format"};

// The lines that an event holds, or nothing if it is an event like others.
const char* LinesOf(TagMsgNode* event) {
    const void* mark = nullptr;
    const void* lines = nullptr;
    if (TagMsgPeekAttr(event, TagInfoText, &mark) != TAGMSG_OK || mark == nullptr ||
        std::strcmp(static_cast<const char*>(mark), kLogLinesMark) != 0 ||
        TagMsgPeekAttr(event, TagMessage, &lines) != TAGMSG_OK)
        return nullptr;
    return static_cast<const char*>(lines);
}

class LogDaemon final : public Daemon {
  public:
    LogDaemon()
        : Daemon("VTLOGD", "Vantrel Logger", "Keeps the log of the Vantrel programs", "vtlogd",
                 metrics::Program::kLogger) {}

  protected:
    trelis::Registration Keys() const override {
        trelis::Registration keys{trelis::Program::kLogger, "VTLOGD", displayName};
        for (const LogClass& each : kLogClasses) keys.names.emplace_back(each.name);
        return keys;
    }
    bool Start(int, char**) override {
        mkdir(platform::HomePath("log").c_str(), 0700);
        const std::string path = platform::HomePath("log/vtlogd.log");
        format_.Load();
        system_.Open();
        if (file_.Open(path, trelis::ReadNumber(kMaxLogSize))) return true;
        std::fprintf(stderr, "VTLOGD: can't open %s\n", path.c_str());
        return false;
    }
    int Threads() const override { return 2; }
    void Answer(const void* data, std::uint32_t length, void**, std::uint32_t*) override {
        OwnedMessage event;
        if (event.Parse(data, length) != TAGMSG_OK)
            return Write(DescribeWarning("an event that could not be read", Format()),
                         kEventWarning | kLevelHigh);
        std::uint32_t word = 0;
        TagMsgCopyAttr(event.root, TagEventWord, &word, sizeof word);
        if (const char* lines = LinesOf(event.root)) return WriteLines(lines, word);
        Write(DescribeEvent(event.root, word, Format()), word);
    }
    void End() override { format_.End(); }

  private:
    LogFormat Format() {
        const std::shared_ptr<const LogFormat> format = format_.Current();
        return format == nullptr ? LogFormat::kText : *format;
    }
    void Write(const LogEntry& entry, std::uint32_t word) {
        WriteToFile(entry.line + '\n');
        system_.Tell(word, entry.text);
    }
    void WriteLines(std::string_view lines, std::uint32_t word) {
        const LogFormat format = Format();
        std::string all;
        for (LogLineReader reader; reader.Next(lines);) {
            LogLineReader fields = reader;
            const LogEntry entry = DescribeLine(fields, format);
            all += entry.line;
            all += '\n';
            system_.TellLine(word, entry.text, reader);
        }
        WriteToFile(all);
        if (!lines.empty())
            Write(DescribeWarning("lines that could not be read", format),
                  kEventWarning | kLevelHigh);
    }
    void WriteToFile(std::string_view lines) {
        const std::lock_guard lock(mutex_);
        file_.Write(lines);
    }

    std::mutex mutex_;
    LogFile file_;  // guarded by mutex_
    SystemLog system_;
    trelis::Followed<LogFormat> format_{
        trelis::kLoggerKey, [] {
            return std::make_shared<const LogFormat>(
                static_cast<LogFormat>(trelis::ReadChoice(kFormat)));
        }};
};

constexpr ServiceWords kWords{"vtlogd",
                              "Keeps the log of the Vantrel programs.\n"
                              "Settings: `vtregistry show logd`; manual: vtlogd(8)\n"};

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    LogDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
