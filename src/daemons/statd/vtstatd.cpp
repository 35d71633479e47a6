// The statistics daemon: takes records from the pipe VTSTATD into stats.db, and shows them over
// HTTP. `vtstatd passwd` keeps its accounts.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "daemons/frame/daemon.h"
#include "daemons/statd/store/recorder.h"
#include "daemons/statd/web/accounts.h"
#include "daemons/statd/web/passwd.h"
#include "daemons/statd/web/site.h"
#include "libstats/httpclient.h"
#include "logclient/logclient.h"
#include "ntservice/words.h"
#include "platform/home.h"
#include "platform/local_socket.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kStatsKey, name}; }

constexpr std::chrono::milliseconds kLook{500};
constexpr std::chrono::seconds kBindAgain{30};

void Warn(const std::string& text) {
    std::fprintf(stderr, "VTSTATD: %s\n", text.c_str());
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text.c_str());
}

class StatsDaemon final : public Daemon {
  public:
    StatsDaemon()
        : Daemon("VTSTATD", "Vantrel Statistics",
                 "Keeps statistics of the mail that passes the Vantrel SMTP proxy", "VTSTATD",
                 metrics::Program::kStatistics) {}

  protected:
    trelis::Registration Keys() const override {
        return {trelis::Program::kStatistics, "VTSTATD", displayName};
    }
    bool Start(int, char**) override {
        const std::string path = platform::HomePath("stats.db");
        std::string note;
        const bool started = recorder_.Start(path, note);
        if (!started) std::fprintf(stderr, "VTSTATD: %s\n", note.c_str());
        if (started) reader_ = stats::ReportReader::Open(path);
        if (reader_ == nullptr) {
            recorder_.Stop();
            return false;
        }
        LogClientInit("Vantrel Statistics", kLocalStore);
        watch_.emplace(trelis::kStatsKey);
        recorder_.SetKeepDays(trelis::ReadInt(Key("KeepDays")));
        keeper_ = std::thread([this, note] { Keep(note); });
        return true;
    }

    int Threads() const override { return 4; }

    void Answer(const void* data, std::uint32_t length, void**, std::uint32_t*) override {
        if (auto record = stats::ParseRecord(data, length)) {
            recorder_.Push(std::move(*record));
        } else {
            recorder_.CountUnreadable();
        }
    }

    void End() override {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        end_.notify_all();
        keeper_.join();
        LogClientUninit();
        recorder_.Stop();
        if (const std::string trouble = recorder_.TakeTrouble(); !trouble.empty())
            std::fprintf(stderr, "VTSTATD: %s\n", trouble.c_str());
        watch_.reset();
    }

  private:
    // Keeps the HTTP server up as the settings say, and tells of trouble. The records don't depend
    // on any of it.
    void Keep(const std::string& note) {
        const std::string pair = stats::OwnerPair(platform::HomePath("report.token"));
        if (pair.empty()) Warn("can't make report.token: reports need an account");
        stats::Accounts accounts(pair);
        stats::HttpSite site(recorder_, *reader_, accounts);
        std::string why;
        auto owners = ServeOwner(site, why);
        if (owners == nullptr) Warn("can't serve this directory's owner: " + why);
        server_ = Serve(site);
        if (!note.empty()) Warn(note);
        auto bindAt = std::chrono::steady_clock::now() + kBindAgain;
        std::unique_lock lock(mutex_);
        while (!end_.wait_for(lock, kLook, [this] { return ending_; })) {
            lock.unlock();
            const bool changed = watch_->Changed();
            const auto now = std::chrono::steady_clock::now();
            const bool again = now >= bindAt;
            if (again && owners == nullptr) owners = ServeOwner(site, why);
            if (changed || (server_ == nullptr && again)) server_ = Serve(site);
            if (changed || again) bindAt = now + kBindAgain;
            if (const std::string trouble = recorder_.TakeTrouble(); !trouble.empty())
                Warn(trouble);
            lock.lock();
        }
        lock.unlock();
        server_.reset();
    }

    // The server for this instance's owner, who says the token to nobody else.
    static std::unique_ptr<stats::HttpServer> ServeOwner(stats::HttpSite& site, std::string& why) {
        const SOCKET listener = SocketListenLocal(kReportFolder, kReportSocket);
        why = "the socket can't be made";
        return listener == INVALID_SOCKET ? nullptr : stats::HttpServer::Start(listener, site, why);
    }

    // The server for the present settings: the one that runs, or a new one in its place.
    std::unique_ptr<stats::HttpServer> Serve(stats::HttpSite& site) {
        recorder_.SetKeepDays(trelis::ReadInt(Key("KeepDays")));
        const std::string address = trelis::ReadText(Key("HTTPAddress"));
        const int port = trelis::ReadInt(Key("HTTPPort"));
        const std::string where = address + ":" + std::to_string(port);
        if (server_ != nullptr && where == where_) return std::move(server_);
        server_.reset();
        std::string why;
        auto server = stats::HttpServer::Start(address, port, site, why);
        // Once for each place: trying again is quiet.
        if (server == nullptr && where != where_)
            Warn("can't serve HTTP on " + where + ": " + why +
                 "; records are received all the same");
        where_ = where;
        return server;
    }

    stats::Recorder recorder_;
    std::unique_ptr<stats::ReportReader> reader_;
    std::optional<trelis::Watch> watch_;
    std::thread keeper_;
    std::unique_ptr<stats::HttpServer> server_;  // keeper_'s
    std::string where_;                          // keeper_'s: where it was last to serve

    std::mutex mutex_;
    std::condition_variable end_;
    bool ending_ = false;  // guarded by mutex_
};

constexpr ServiceWords kWords{
    "vtstatd",
    "Keeps the statistics of the mail and serves their pages.\n"
    "Settings: `vtregistry show statd`; manual: vtstatd(8)\n",
    "  passwd NAME           make an account; the password is one line of standard input\n"
    "  passwd -d NAME        delete it\n"};

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerHelp(ServiceUsage(kWords), argc, argv)) return *code;
    if (argc > 1 && std::strcmp(argv[1], "passwd") == 0)
        return stats::PasswdCommand(argc - 1, argv + 1);
    if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    StatsDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
