// Whether the interfaces can have their addresses and ports. A port is tried by a bind alone: no
// client ever meets a listener of this program.
#include <cerrno>
#include <chrono>
#include <map>
#include <optional>
#include <system_error>
#include <thread>

#include "host/check/parts.h"
#include "host/smtp.h"
#include "net/address.h"
#include "net/socket.h"
#include "platform/listener.h"

namespace {

// 0, or the platform's error value.
int TryBind(const SocketAddress& where, bool bothFamilies) {
    CSocket socket;
    if (!socket.Create(SOCK_STREAM, where)) return errno;
    SocketAllowReuse(socket.Handle());
    if (where.Family() == AF_INET6) SocketTakeBothFamilies(socket.Handle(), bothFamilies);
    const int error = socket.Bind(where) ? 0 : errno;
    socket.Close();
    return error;
}

// A proxy that runs follows a change of its interfaces, and is between two listeners for a moment.
constexpr std::chrono::seconds kFollowing{2};
constexpr std::chrono::milliseconds kAgain{100};

struct Trial {
    int error = 0;  // of a bind
    platform::PortHolder holder = platform::PortHolder::kNobody;

    bool IsGood() const { return error == 0 || holder == platform::PortHolder::kService; }
};

Trial TryListening(const SocketAddress& where, bool bothFamilies) {
    const auto end = std::chrono::steady_clock::now() + kFollowing;
    for (;;) {
        Trial trial{TryBind(where, bothFamilies)};
        if (trial.error != 0) trial.holder = platform::WhoListens(where, kProxyServiceName);
        if (trial.IsGood() || trial.error != EADDRINUSE || std::chrono::steady_clock::now() >= end)
            return trial;
        std::this_thread::sleep_for(kAgain);
    }
}

class ListenerCheck {
  public:
    explicit ListenerCheck(Findings& findings) : findings_(findings) {}

    void Check(const std::string& interface) {
        const std::string portKey = InterfaceKey("Port").Path({interface});
        const std::string addressKey = InterfaceKey("IPAddress").Path({interface});
        const std::string text = trelis::ReadText(InterfaceKey("IPAddress"), {interface});
        const int port = trelis::ReadInt(InterfaceKey("Port"), {interface});
        if (port < 1 || port > 0xFFFF) return;  // a value that can't be used
        const std::optional<IpAddress> address = ListenAddress(text);
        if (!address) return;  // nor this one
        const SocketAddress where = address->WithPort(static_cast<std::uint16_t>(port));
        const auto [first, fresh] = taken_.emplace(AddressAndPort(where), interface);
        if (!fresh)
            findings_.Error(portKey,
                            "the interface " + first->second + " has this address and port",
                            "set another port or address");
        else
            Judge(TryListening(where, *address == IpAddress()), where, portKey, addressKey);
    }

  private:
    void Judge(const Trial& trial, const SocketAddress& where, const std::string& portKey,
               const std::string& addressKey) {
        if (trial.IsGood()) return;
        const std::string shown = AddressAndPort(where);
        const int error = trial.error;
        if (trial.holder == platform::PortHolder::kOther || error == EADDRINUSE) {
            findings_.Error(portKey, "another program has " + shown,
                            "stop that program (ss -ltnp shows it), or set another port");
        } else if (error == EACCES) {
            findings_.Warn(portKey, "this user may not listen on " + shown,
                           "run the check as root; the service of systemd may");
        } else {
            findings_.Error(addressKey,
                            shown + " can't be had: " +
                                std::error_code(error, std::system_category()).message(),
                            "set an address of this host, or nothing for all of IPv4");
        }
    }

    Findings& findings_;
    std::map<std::string, std::string> taken_;  // the first interface with an address and port
};

}  // namespace

void CheckListeners(const std::vector<std::string>& interfaces, Findings& findings) {
    ListenerCheck check(findings);
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        if (i < kInterfaceCount)
            check.Check(interfaces[i]);
        else
            findings.Error(
                InterfaceKey("Port").Path({interfaces[i]}),
                "only the first " + std::to_string(kInterfaceCount) + " interfaces listen",
                "delete interfaces that nobody needs");
    }
}
