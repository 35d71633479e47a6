// What has to go so that a new message has room.
#include <algorithm>

#include "daemons/quarantine/quarantine.h"

namespace quarantine {

namespace {

// Who holds more than this part of the room gives way before all others: a flood pushes itself out.
constexpr long long kShares = 8;

}  // namespace

bool Quarantine::Push(const char* state, const std::string& source, Excess& excess,
                      const std::function<bool(const KeptMessage&)>& more,
                      std::vector<KeptMessage>& gone) {
    while (excess.Any()) {
        std::optional<KeptMessage> oldest = index_.Oldest(state, source);
        if (!oldest) return index_.Complaint().empty();
        if (!more(*oldest)) return true;
        if (!index_.Remove(oldest->id)) return false;
        excess.room -= RoomOf(*oldest);
        --excess.messages;
        gone.push_back(std::move(*oldest));
    }
    return true;
}

bool Quarantine::PushShares(const Limits& limits, Excess& excess, std::size_t most,
                            std::vector<KeptMessage>& gone) {
    std::optional<std::vector<Index::Share>> shares = index_.Shares();
    if (!shares) return false;
    std::sort(shares->begin(), shares->end(),
              [](const Index::Share& a, const Index::Share& b) { return a.room > b.room; });
    for (Index::Share& share : *shares) {
        const auto more = [&](const KeptMessage& next) {
            if (gone.size() >= most || (share.room <= limits.maxSize / kShares &&
                                        share.messages <= limits.MostMessages() / kShares))
                return false;
            share.room -= RoomOf(next);
            --share.messages;
            return true;
        };
        if (!Push(state::kHeld, share.source, excess, more, gone)) return false;
    }
    return true;
}

bool Quarantine::MakeRoom(const KeptMessage* next, const Limits& limits, std::size_t most,
                          std::vector<KeptMessage>& gone) {
    const std::optional<Numbers> numbers = index_.Count();
    if (!numbers) return false;
    Excess excess{numbers->room - limits.maxSize, numbers->All() - limits.MostMessages()};
    if (next != nullptr) {
        excess.room += RoomOf(*next);
        ++excess.messages;
    }
    const auto more = [&](const KeptMessage&) { return gone.size() < most; };
    return !excess.Any() || (Push(state::kReleased, "", excess, more, gone) &&
                             Push(state::kOriginal, "", excess, more, gone) &&
                             (!excess.Any() || PushShares(limits, excess, most, gone)) &&
                             Push(state::kHeld, "", excess, more, gone) &&
                             Push(state::kReleasing, "", excess, more, gone));
}

bool Quarantine::Admit(const KeptMessage* next, const Limits& limits, std::size_t most,
                       std::vector<KeptMessage>& gone, std::string& complaint) {
    const std::lock_guard lock(mutex_);
    if (!OpenIndex(true, complaint)) return false;
    if (!index_.Begin()) {
        complaint = index_.Complaint();
        return false;
    }
    if (!MakeRoom(next, limits, most, gone) || (next != nullptr && !index_.Put(*next)) ||
        (!gone.empty() && !index_.Add(counter::kPushedOut, static_cast<int>(gone.size()))) ||
        !index_.Commit()) {
        complaint = index_.Complaint();
        index_.Rollback();
        gone.clear();
        return false;
    }
    for (const KeptMessage& each : gone) RemoveFiles(each.id);
    return true;
}

void Quarantine::Tell(const std::vector<KeptMessage>& gone) const {
    if (!tell_) return;
    for (const KeptMessage& each : gone) tell_(each);
}

}  // namespace quarantine
