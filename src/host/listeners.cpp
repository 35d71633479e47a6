#include "host/listeners.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "logclient/logclient.h"
#include "net/socket.h"
#include "text/printable.h"

namespace {

// Told once, until something else is to be told.
void Complain(const ListenerWish& wish, const std::string& complaint, std::string& told) {
    if (complaint == told) return;
    told = complaint;
    const std::string text = "interface " + wish.interface + ": " + complaint;
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text.c_str());
}

}  // namespace

std::optional<Listeners::Place> Listeners::PlaceOf(const ListenerWish& wish) {
    const std::optional<IpAddress> address = ListenAddress(wish.address);
    if (!address) return std::nullopt;
    return Place{*address, static_cast<std::uint16_t>(wish.port)};
}

void Listeners::Follow(const std::vector<ListenerWish>& wishes) {
    std::vector<Slot> old = std::exchange(slots_, {});
    for (const ListenerWish& wish : wishes) {
        Slot& slot = slots_.emplace_back(Slot{wish, PlaceOf(wish), {}, {}});
        Inherit(slot, old);
    }
    // Before new ones are opened: the address of one of these may be a part of an old one's.
    old.clear();
    for (Slot& slot : slots_) Open(slot);
}

// The socket goes with the place, what has been told with the interface too.
void Listeners::Inherit(Slot& slot, std::vector<Slot>& old) {
    for (Slot& each : old) {
        if (each.place != slot.place) continue;
        if (each.wish.interface == slot.wish.interface && each.wish.address == slot.wish.address)
            slot.told = std::move(each.told);
        if (!slot.socket) slot.socket = std::move(each.socket);
    }
}

void Listeners::OpenMissing() {
    for (Slot& slot : slots_) {
        if (slot.Missing()) Open(slot);
    }
}

void Listeners::Open(Slot& slot) {
    if (!slot.place) {
        Complain(slot.wish, "no address to listen on: " + CleanText(slot.wish.address), slot.told);
        return;
    }
    const auto& [address, port] = *slot.place;
    const SocketAddress where = address.WithPort(port);
    if (!slot.socket) {
        CSocket listener;
        if (const int error = listener.CreateListener(where, address == IpAddress()); error != 0) {
            Complain(slot.wish,
                     AddressAndPort(where) + ": " +
                         std::error_code(error, std::system_category()).message(),
                     slot.told);
            return;
        }
        slot.socket.Reset(listener.Handle());
        opened_(listener.Handle());
    }
    if (slot.told.empty()) return;
    slot.told.clear();
    const std::string text =
        "interface " + slot.wish.interface + ": listens on " + AddressAndPort(where);
    LogClientPost(kEventInfo, nullptr, text.c_str());
}

bool Listeners::AnyMissing() const {
    return std::any_of(slots_.begin(), slots_.end(),
                       [](const Slot& slot) { return slot.Missing(); });
}

std::vector<SOCKET> Listeners::Open() const {
    std::vector<SOCKET> open;
    for (const Slot& slot : slots_) {
        if (slot.socket) open.push_back(slot.socket.Get());
    }
    return open;
}

std::optional<std::size_t> Listeners::PositionOf(SOCKET listener) const {
    const auto found = std::find_if(slots_.begin(), slots_.end(), [listener](const Slot& slot) {
        return slot.socket && slot.socket.Get() == listener;
    });
    if (found == slots_.end()) return std::nullopt;
    return static_cast<std::size_t>(found - slots_.begin());
}
