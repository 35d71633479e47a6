// The HTTP server: one exchange a connection, bounded in everything that a stranger sends. It knows
// nothing of statistics. On libmicrohttpd.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct MHD_Daemon;
struct sockaddr;

namespace stats {

inline constexpr std::size_t kBodyLimit = 64U << 10;
inline constexpr std::size_t kLongestSearch = 200;

struct HttpRequest {
    std::string method;
    std::string path;    // without the query
    std::string search;  // the query's q, cut to kLongestSearch; nothing else of it is kept
    std::string authorization;
    std::string contentType;
    std::uint32_t clientAddress = 0;  // IPv4
    bool local = false;               // from this host, by a loopback address or the owner's socket
    std::string body;
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpResponse {
    unsigned status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
    HttpHeaders headers;
};

// Any number of the server's threads at a time.
class HttpHandler {
  public:
    virtual ~HttpHandler() = default;
    // The head is complete. A response: it is refused, and the body is not kept. Nothing: go on.
    virtual std::optional<HttpResponse> Judge(const HttpRequest& request) = 0;
    virtual HttpResponse Answer(const HttpRequest& request) = 0;
};

// The connections and when they came. One that has not ended after 30 s is cut, however busy its
// client keeps it; the server itself ends those that are silent for 10 s.
class HttpDeadlines {
  public:
    HttpDeadlines() : thread_([this] { Work(); }) {}
    HttpDeadlines(const HttpDeadlines&) = delete;
    HttpDeadlines& operator=(const HttpDeadlines&) = delete;
    ~HttpDeadlines();
    void Add(int descriptor);
    void Remove(int descriptor);

  private:
    void Work();

    std::mutex mutex_;  // guards all below but the thread
    std::condition_variable end_;
    bool ending_ = false;
    std::map<int, std::chrono::steady_clock::time_point> since_;  // by descriptor
    std::thread thread_;
};

class HttpServer {
  public:
    // address: dotted. Null on failure, and `why` says why. The handler outlives the server.
    static std::unique_ptr<HttpServer> Start(const std::string& address, int port,
                                             HttpHandler& handler, std::string& why);
    // On a listening socket, which the library closes at the end, and on failure.
    static std::unique_ptr<HttpServer> Start(int listener, HttpHandler& handler, std::string& why);
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    // Cuts what is under way.
    ~HttpServer();

  private:
    HttpServer() = default;
    // where: not null for a port, else the listener is there.
    static std::unique_ptr<HttpServer> Begin(sockaddr* where, int port, int listener,
                                             HttpHandler& handler, std::string& why);
    HttpDeadlines deadlines_;
    MHD_Daemon* daemon_ = nullptr;
};

}  // namespace stats
