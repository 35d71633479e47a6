#include "daemons/statd/web/server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace stats {
namespace {

constexpr unsigned kThreads = 8;
constexpr unsigned kOwnersThreads = 2;
// More than the silent connections that a nuisance can hold for their ten seconds at no cost.
constexpr unsigned kConnections = 2048;
constexpr unsigned kSilentSeconds = 10;
constexpr std::chrono::seconds kLife{30};
// Of one connection: its head must fit.
constexpr std::size_t kConnectionMemory = 16U << 10;
constexpr unsigned kBacklog = 1024;

// One exchange. Made when its head has come, deleted when it is over.
struct Exchange {
    HttpRequest request;
    std::optional<HttpResponse> refusal;
};

MHD_Result Send(MHD_Connection* connection, const HttpResponse& response) {
    // The library copies the body. It knows its length, so it never sends chunks.
    MHD_Response* out = MHD_create_response_from_buffer(
        response.body.size(), const_cast<char*>(response.body.data()), MHD_RESPMEM_MUST_COPY);
    if (out == nullptr) return MHD_NO;
    MHD_add_response_header(out, "Content-Type", response.type.c_str());
    MHD_add_response_header(out, "Cache-Control", "no-store");
    MHD_add_response_header(out, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(out, "Connection", "close");
    for (const auto& [name, value] : response.headers)
        MHD_add_response_header(out, name.c_str(), value.c_str());
    const MHD_Result result = MHD_queue_response(connection, response.status, out);
    MHD_destroy_response(out);
    return result;
}

std::string Header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value == nullptr ? "" : value;
}

std::uint32_t ClientAddress(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr || info->client_addr->sa_family != AF_INET)
        return 0;
    return reinterpret_cast<const sockaddr_in*>(info->client_addr)->sin_addr.s_addr;
}

bool IsLocal(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return false;
    switch (info->client_addr->sa_family) {
        case AF_UNIX:
            return true;
        case AF_INET:
            return ntohl(ClientAddress(connection)) >> 24 == IN_LOOPBACKNET;
        case AF_INET6:
            return IN6_IS_ADDR_LOOPBACK(
                &reinterpret_cast<const sockaddr_in6*>(info->client_addr)->sin6_addr);
        default:
            return false;
    }
}

std::string Search(MHD_Connection* connection) {
    const char* text = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "q");
    return text == nullptr ? std::string() : std::string(text, strnlen(text, kLongestSearch));
}

// A body whose length is not known beforehand, or too large, is not read.
std::optional<HttpResponse> RefuseBody(MHD_Connection* connection) {
    if (!Header(connection, "Transfer-Encoding").empty())
        return HttpResponse{411, "text/plain; charset=utf-8", "A length is required.\n", {}};
    const std::string length = Header(connection, "Content-Length");
    if (length.size() <= 18 && std::strtoull(length.c_str(), nullptr, 10) <= kBodyLimit)
        return std::nullopt;
    return HttpResponse{413, "text/plain; charset=utf-8", "Too large.\n", {}};
}

MHD_Result Begin(HttpHandler& handler, MHD_Connection* connection, const char* url,
                 const char* method, void** context) {
    if (const auto refusal = RefuseBody(connection)) return Send(connection, *refusal);
    auto exchange = std::make_unique<Exchange>();
    exchange->request = {method,
                         url,
                         Search(connection),
                         Header(connection, "Authorization"),
                         Header(connection, "Content-Type"),
                         ClientAddress(connection),
                         IsLocal(connection),
                         {}};
    exchange->refusal = handler.Judge(exchange->request);
    *context = exchange.release();
    return MHD_YES;
}

MHD_Result Handle(void* self, MHD_Connection* connection, const char* url, const char* method,
                  const char*, const char* data, std::size_t* size, void** context) {
    auto& handler = *static_cast<HttpHandler*>(self);
    try {
        if (*context == nullptr) return Begin(handler, connection, url, method, context);
        auto& exchange = *static_cast<Exchange*>(*context);
        if (*size == 0)
            return Send(connection,
                        exchange.refusal ? *exchange.refusal : handler.Answer(exchange.request));
        // A refused body is read and dropped, so that its sender gets to see the answer.
        if (!exchange.refusal) exchange.request.body.append(data, *size);
        *size = 0;
        return exchange.request.body.size() <= kBodyLimit ? MHD_YES : MHD_NO;
    } catch (const std::exception&) {  // memory ran out: this connection ends
        return MHD_NO;
    }
}

void Completed(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
    delete static_cast<Exchange*>(*context);
    *context = nullptr;
}

void Connected(void* self, MHD_Connection* connection, void**,
               MHD_ConnectionNotificationCode code) {
    auto& deadlines = *static_cast<HttpDeadlines*>(self);
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info == nullptr) return;
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        deadlines.Add(info->connect_fd);
    } else {
        deadlines.Remove(info->connect_fd);
    }
}

}  // namespace

HttpDeadlines::~HttpDeadlines() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    end_.notify_all();
    thread_.join();
}

void HttpDeadlines::Add(int descriptor) {
    const std::lock_guard lock(mutex_);
    since_[descriptor] = std::chrono::steady_clock::now();
}

// Before the descriptor is closed, so that no other connection of its number is cut.
void HttpDeadlines::Remove(int descriptor) {
    const std::lock_guard lock(mutex_);
    since_.erase(descriptor);
}

void HttpDeadlines::Work() {
    std::unique_lock lock(mutex_);
    while (!end_.wait_for(lock, std::chrono::seconds(1), [&] { return ending_; })) {
        const auto now = std::chrono::steady_clock::now();
        for (const auto& [descriptor, since] : since_) {
            // The server's thread sees the end and closes.
            if (now - since > kLife) shutdown(descriptor, SHUT_RDWR);
        }
    }
}

std::unique_ptr<HttpServer> HttpServer::Start(const std::string& address, int port,
                                              HttpHandler& handler, std::string& why) {
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(static_cast<std::uint16_t>(port));
    if (port < 1 || port > 65535 || inet_pton(AF_INET, address.c_str(), &where.sin_addr) != 1) {
        why = "no IPv4 address and port";
        return nullptr;
    }
    return Begin(reinterpret_cast<sockaddr*>(&where), port, -1, handler, why);
}

std::unique_ptr<HttpServer> HttpServer::Start(int listener, HttpHandler& handler,
                                              std::string& why) {
    return Begin(nullptr, 0, listener, handler, why);
}

std::unique_ptr<HttpServer> HttpServer::Begin(sockaddr* where, int port, int listener,
                                              HttpHandler& handler, std::string& why) {
    std::unique_ptr<HttpServer> server(new HttpServer);
    const MHD_OptionItem place = where != nullptr
                                     ? MHD_OptionItem{MHD_OPTION_SOCK_ADDR, 0, where}
                                     : MHD_OptionItem{MHD_OPTION_LISTEN_SOCKET, listener, nullptr};
    const MHD_OptionItem options[] = {place, {MHD_OPTION_END, 0, nullptr}};
    errno = 0;
    // Lenient towards clients: ours sends no Host line.
    server->daemon_ = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD, static_cast<std::uint16_t>(port), nullptr, nullptr, Handle,
        &handler, MHD_OPTION_ARRAY, options, MHD_OPTION_STRICT_FOR_CLIENT, -1,
        MHD_OPTION_THREAD_POOL_SIZE, where != nullptr ? kThreads : kOwnersThreads,
        MHD_OPTION_CONNECTION_LIMIT, kConnections, MHD_OPTION_CONNECTION_TIMEOUT, kSilentSeconds,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_LISTEN_BACKLOG_SIZE,
        kBacklog, MHD_OPTION_NOTIFY_COMPLETED, Completed, nullptr, MHD_OPTION_NOTIFY_CONNECTION,
        Connected, &server->deadlines_, MHD_OPTION_END);
    if (server->daemon_ != nullptr) return server;
    why = errno == 0 ? "the HTTP server can't start" : std::strerror(errno);
    return nullptr;
}

HttpServer::~HttpServer() {
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
}

}  // namespace stats
