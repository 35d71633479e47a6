// Inside antivirus/: a message in a part's bytes, as the sinks of the walk around it are told of
// it.
#pragma once

#include <list>
#include <span>
#include <string>

#include "daemons/maild/walk/part.h"

namespace maild {

// Hands on what a walk over the message says, but that its parts lie in the part around them: their
// places go on from its own, their ranges are its ranges.
class InsidePart final : public PartSink {
  public:
    // Both outlive it.
    InsidePart(const Part& around, std::span<PartSink* const> sinks)
        : around_(around), sinks_(sinks) {}

    void Headers(std::span<const HeaderField> fields, const std::string& place) override {
        for (PartSink* sink : sinks_) sink->Headers(fields, PlaceOf(place));
    }
    void Begin(const Part& part) override {
        open_.push_back(Inside(part));
        for (PartSink* sink : sinks_) sink->Begin(open_.back());
    }
    void Data(std::span<const std::byte> bytes) override {
        for (PartSink* sink : sinks_) sink->Data(bytes);
    }
    void End(const Part& part) override {
        const Part inside = Inside(part);
        for (PartSink* sink : sinks_) sink->End(inside);
        open_.pop_back();
    }

  private:
    std::string PlaceOf(const std::string& place) const {
        return place.empty() ? around_.place : around_.place + "." + place;
    }
    Part Inside(const Part& part) const {
        Part inside = part;
        inside.place = PlaceOf(part.place);
        inside.depth += around_.depth + 1;
        inside.inSigned = true;
        inside.ownRange = false;
        inside.whole = around_.whole;
        inside.body = around_.body;
        return inside;
    }

    const Part& around_;
    const std::span<PartSink* const> sinks_;
    std::list<Part> open_;
};

}  // namespace maild
