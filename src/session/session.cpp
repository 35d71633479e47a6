#include "session/session.h"

#include <new>
#include <utility>

#include "metrics/count.h"
#include "platform/task.h"
#include "session/registry.h"

namespace {

// Counts a session while it runs.
class Running {
  public:
    explicit Running(std::size_t place) : place_(place) {
        metrics::Add<metrics::Metric::kSessions>(place);
        metrics::Add<metrics::Metric::kSessionsActive>(place);
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { metrics::Subtract<metrics::Metric::kSessionsActive>(place_); }

  private:
    const std::size_t place_;
};

void SessionThread(void* argument) {
    if (argument == nullptr) return;
    std::unique_ptr<CSMTPProxy> session(static_cast<CSMTPProxy*>(argument));
    try {
        session->RunSession();
    } catch (...) {  // the task ends quietly, whatever it was
    }
    session.reset();
    SessionRegistry::Instance().Done();
}

}  // namespace

std::unique_ptr<CSMTPProxy> CreateSession(SOCKET socket) {
    try {
        auto session = std::make_unique<CSMTPProxy>(socket);
        if (!session->spool_.Name(socket)) return nullptr;
        return session;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void CSMTPProxy::ApplyInterface(const NetworkInterface& interface, long long scanLimit) {
    settings_ = SessionSettings::Of(interface, scanLimit);
    configured_ = true;
}

int CSMTPProxy::Start() {
    if (started_) return 0;
    if (!SessionRegistry::Instance().Enter(this)) return -1;
    started_ = true;
    // The session may be over, and the object gone, before this returns: nothing of it is touched
    // then.
    if (platform::StartTask(SessionThread, this)) return 0;
    started_ = false;
    SessionRegistry::Instance().Leave(this);
    SessionRegistry::Instance().Done();
    return -1;
}

void CSMTPProxy::RequestStop() {
    stopRequested_ = true;
    const std::lock_guard lock(handleMutex_);
    if (connecting_ && serverHandle_ != 0) shutdown(serverHandle_, SD_BOTH);
    if (waitingForCommand_ && clientHandle_ != 0) shutdown(clientHandle_, 0);
}

void CSMTPProxy::Cut() {
    const std::lock_guard lock(handleMutex_);
    for (const SOCKET socket : {clientHandle_, serverHandle_}) {
        if (socket != 0) shutdown(socket, SD_BOTH);
    }
}

// Of what its task writes only the state may be looked at.
SessionView CSMTPProxy::View() const {
    const SessionState& state = peers_.state;
    return {peers_.journal.session.id,
            state.Peer() == IpAddress() ? "" : state.Peer().Text(),
            settings_.interfaceName,
            state.Phase(),
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  state.Begun()),
            state.Bytes()};
}

Stream::Line CSMTPProxy::ReadCommand(std::string_view& line, std::size_t limit) {
    // Either this task sees the request, or the requester sees it waiting.
    waitingForCommand_ = true;
    const Stream::Line result =
        stopRequested_ ? Stream::Line::kFailed : client_.ReadLine(line, limit);
    waitingForCommand_ = false;
    return result;
}

int CSMTPProxy::RunSession() {
    const Running running(settings_.interfacePlace);
    CountPlace counted;
    try {
        client_.Attach(clientSocket_);
        client_.SetLimit(settings_.connectionTimeout);
        server_.SetClient(clientSocket_);
        peers_.restart = LearnClient();
        while (std::exchange(peers_.restart, false) && !IsClientDenied()) {
            if (!counted.Taken()) counted = CountPlace(connectionCounter_);
            arrival_.GiveBack();
            Serve();
            DropServer();
        }
        client_.Flush();
        client_.Detach();
    } catch (...) {  // memory ran out: an ordinary end
    }
    counted.GiveBack();
    if (stopRequested_ && peers_.journal.session.ended != kEndedQuit)
        peers_.journal.session.ended = kEndedStop;
    peers_.journal.EndSession();
    // A message that was abandoned between two chunks, or by an exception. The file has its name
    // from the client's socket, whose number the next session may get.
    spool_.Remove();
    SessionRegistry::Instance().Leave(this);
    {
        // From here on the sockets' numbers may soon be others'.
        const std::lock_guard lock(handleMutex_);
        clientHandle_ = serverHandle_ = 0;
    }
    clientSocket_.Shutdown();
    clientSocket_.Close();
    serverSocket_.Shutdown();
    serverSocket_.Close();
    return 0;
}
