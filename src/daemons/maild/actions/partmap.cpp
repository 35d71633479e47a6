#include "daemons/maild/actions/partmap.h"

#include <algorithm>

namespace maild {

void PartMap::Begin(const Part& part) {
    PlacedPart placed;
    placed.place = part.place;
    placed.name = part.names.empty() ? std::string() : part.names.front();
    placed.type = part.type;
    placed.kind = part.kind;
    placed.whole = part.whole;
    placed.body = part.body;
    placed.ofMessage = open_.empty() || parts_[open_.back()].kind == PartKind::kMessage;
    placed.coded = part.kind != PartKind::kLeaf && part.coding != Coding::kPlain;
    // What stands in a coded container is walked as it is, too: that is no place for a text either.
    const bool inCoded = std::any_of(open_.begin(), open_.end(),
                                     [this](std::size_t each) { return parts_[each].coded; });
    placed.fixed = !part.ownRange || part.inSigned || part.inEncrypted || inCoded;
    open_.push_back(parts_.size());
    parts_.push_back(std::move(placed));
}

void PartMap::End(const Part& part) {
    if (open_.empty()) return;
    PlacedPart& placed = parts_[open_.back()];
    placed.whole = part.whole;
    placed.body = part.body;
    open_.pop_back();
}

const PlacedPart* PartMap::Find(const Finding& finding) const {
    if (finding.part.empty()) return nullptr;
    const bool anyRange = finding.range == Range{};
    for (const PlacedPart& each : parts_) {
        if (each.place == finding.part &&
            (anyRange || finding.range == each.whole || finding.range == each.body))
            return &each;
    }
    return nullptr;
}

}  // namespace maild
