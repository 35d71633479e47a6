#include "platform/linux/pipe/server.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>

#include "platform/home.h"
#include "platform/linux/local_address.h"
#include "platform/linux/pipe/pipe.h"

namespace platform {
namespace {

// What clients of several processes may open while all who would accept them are busy.
constexpr int kBacklog = 512;

struct ServerTable {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<PipeServer>> servers;  // guarded by mutex
};
ServerTable& Servers() {
    static ServerTable& table = *new ServerTable;
    return table;
}

UniqueDescriptor OpenReserve() { return UniqueDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

}  // namespace

std::shared_ptr<PipeServer> PipeServer::Get(const std::string& name) {
    const std::lock_guard lock(Servers().mutex);
    std::weak_ptr<PipeServer>& known = Servers().servers[name];
    if (auto server = known.lock()) return server;
    auto server = std::make_shared<PipeServer>();
    if (!server->Open(name)) return nullptr;
    known = server;
    return server;
}

bool PipeServer::Open(const std::string& name) {
    const LocalAddress address("pipes", name);
    const std::string path = HomePath("pipes/") + name;
    if (!address.Valid()) return false;
    // While the lock is held nobody else serves the name, and a socket that is there belongs to a
    // dead process.
    lock_.Reset(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_ || flock(lock_.Get(), LOCK_EX | LOCK_NB) != 0) return false;
    path_ = path;
    unlink(path_.c_str());
    listener_.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    reserve_ = OpenReserve();
    return listener_ && bind(listener_.Get(), address.Get(), LocalAddress::Size()) == 0 &&
           listen(listener_.Get(), kBacklog) == 0;
}

PipeServer::~PipeServer() {
    if (watch_ != 0) queue_->Unwatch(listener_.Get(), watch_);
    // While the lock is still held: the next server's socket must not be meant.
    if (listener_) unlink(path_.c_str());
}

bool PipeServer::Watch(CompletionQueue* queue) {
    const std::lock_guard lock(mutex_);
    // All instances of a name use one queue: the first one's.
    if (watch_ != 0) return queue_.get() == queue;
    target_.reset(NewObject<Listener>(weak_from_this()));
    if (target_ != nullptr) watch_ = queue->Watch(listener_.Get(), target_.get());
    if (watch_ != 0) queue_ = Share(queue);
    return watch_ != 0;
}

void PipeServer::Wait(Pipe* pipe) {
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(pipe);
    }
    AcceptWaiting();
}

void PipeServer::StopWaiting(Pipe* pipe) {
    const std::lock_guard lock(mutex_);
    std::erase(waiting_, pipe);
}

UniqueDescriptor PipeServer::Accept() {
    return UniqueDescriptor(
        accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

// Where the process has no descriptor left: a client that nothing will ever wake us for again is
// told so by a hang-up, instead of waiting in the backlog. False if there was none.
bool PipeServer::RefuseOne() {
    reserve_.Reset();
    const bool refused = static_cast<bool>(Accept());
    reserve_ = OpenReserve();
    return refused;
}

// Takes connections as long as there are instances for them. What is left in the backlog is taken
// by the next Wait.
void PipeServer::AcceptWaiting() {
    const std::lock_guard lock(mutex_);
    if (!reserve_) reserve_ = OpenReserve();
    while (!waiting_.empty()) {
        UniqueDescriptor client = Accept();
        if (!client && (errno == EINTR || errno == ECONNABORTED)) continue;
        if (!client && (errno == EMFILE || errno == ENFILE) && RefuseOne()) continue;
        if (!client) return;
        Pipe* pipe = waiting_.front();
        waiting_.pop_front();
        pipe->Adopt(std::move(client));
    }
}

}  // namespace platform
