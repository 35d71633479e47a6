// The HTTP client of one exchange: a connection, text out, a line in, the response's headers, a
// counted body in. It knows nothing of a request's meaning, of chunks, redirects or keep-alive. One
// thread at a time. Each wait is 300 s at most, and each counts on its own.
#pragma once

#include <map>
#include <string>

#include "net/socket.h"

// Where this instance's statistics daemon serves the owner of the instance's directory.
inline constexpr char kReportFolder[] = "pipes";
inline constexpr char kReportSocket[] = "VTSTATD.http";

class CHTTPClient {
  public:
    CHTTPClient() = default;
    CHTTPClient(const CHTTPClient&) = delete;
    CHTTPClient& operator=(const CHTTPClient&) = delete;
    virtual ~CHTTPClient();

    // Reads the header section behind the status line. Always 0: what is missing was not read. A
    // section without reasonable end leaves no header at all and ends the connection.
    virtual int ReadHeaders();
    // The value of a header by its name in any spelling, or null. Valid until CloseConnection. Of
    // headers that come twice the first counts.
    virtual const char* GetHeader(const char* name);
    // 1 sent, 0 failed. A text above 10,000 bytes is not sent, and gives 1.
    [[gnu::format(printf, 2, 3)]] virtual int SendFormat(const char* format, ...);
    virtual int SendText(const char* text);
    // One line with its line end, zero-terminated. 1, or -1 with the buffer as it was. A line that
    // is too long is cut (CSocket::ReadLine).
    virtual int ReadResponseLine(char* buffer, unsigned size);
    // Exactly length bytes and a zero byte behind them. 0, or -1.
    virtual int ReadBody(char* buffer, int length);

    // From now on ConnectTo goes to this instance's own statistics daemon, by a socket that no
    // other user can serve, whatever host and port it is given.
    void UseOwnDaemon() { ownDaemon_ = true; }
    // How far the last exchange has got, for people: the response's status, kNoAnswer once there
    // is a connection, kNotReached before.
    static constexpr int kNotReached = -1;
    static constexpr int kNoAnswer = 0;
    int LastStatus() const { return status_; }
    void NoteStatus(int status) { status_ = status; }

    // host is dotted text, port in host order. 0, or -1.
    int ConnectTo(const char* host, int port);
    // Ends the connection and forgets the headers. Always 0; the client can connect again.
    int CloseConnection();

  private:
    bool Connect(const char* host, int port);

    std::map<std::string, std::string> headers_;  // by name in lower case
    CSocket connection_;
    bool ownDaemon_ = false;
    int status_ = kNotReached;
};
