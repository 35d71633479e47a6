// The listening sockets of the interface table. One that is wanted again by the next reading of the
// table stays open, and with it the clients in its backlog, whatever else of its interface changes.
// One that can't be had is told to the logger, and had later. All on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "net/address.h"
#include "platform/socket.h"
#include "platform/unique.h"

struct ListenerWish {
    std::string interface;  // its name below the interfaces' key
    std::string address;    // in the words of its IPAddress
    int port = 0;           // its low 16 bits count; host order
};

class Listeners {
  public:
    // `opened` gets each new listener, which is non-blocking.
    explicit Listeners(std::function<void(SOCKET)> opened) : opened_(std::move(opened)) {}

    // From now on these are wanted, and no others. Of two with the same address and port the first
    // one listens.
    void Follow(const std::vector<ListenerWish>& wishes);
    // Tries to have what could not be had until now.
    void OpenMissing();
    // Whether there is something to be tried: an address in words that are none never comes.
    bool AnyMissing() const;
    // Those that are open.
    std::vector<SOCKET> Open() const;
    // The position in the list of wishes.
    std::optional<std::size_t> PositionOf(SOCKET listener) const;
    void CloseAll() { slots_.clear(); }

  private:
    struct SocketKind {
        using Type = SOCKET;
        static constexpr SOCKET kNone = INVALID_SOCKET;
        static bool Owned(SOCKET socket) { return socket != INVALID_SOCKET; }
        static void Close(SOCKET socket) { closesocket(socket); }
    };
    struct Place {
        IpAddress address;
        std::uint16_t port = 0;
        bool operator==(const Place&) const = default;
    };
    struct Slot {
        ListenerWish wish;
        std::optional<Place> place;  // none: nobody can listen there
        platform::Unique<SocketKind> socket;
        std::string told;  // to the logger, of why there is no listener

        bool Missing() const { return place && !socket; }
    };

    static std::optional<Place> PlaceOf(const ListenerWish& wish);
    static void Inherit(Slot& slot, std::vector<Slot>& old);
    void Open(Slot& slot);

    std::function<void(SOCKET)> opened_;
    std::vector<Slot> slots_;  // in the order of the wishes
};
