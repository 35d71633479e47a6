// Inside actions/: where the parts of a message lie, and which of them may be taken out.
#pragma once

#include <string>
#include <vector>

#include "daemons/maild/verdict/finding.h"
#include "daemons/maild/walk/part.h"

namespace maild {

struct PlacedPart {
    std::string place;
    std::string name;  // its first; empty if it has none
    std::string type;
    Range whole;
    Range body;
    PartKind kind = PartKind::kLeaf;
    // It is all that its message has: the message's headers and its own are one.
    bool ofMessage = false;
    // Nothing in it may be changed: it is not in the file as it is, or signed, or encrypted.
    bool fixed = false;
    bool coded = false;  // a message or multipart with a coding of its own
};

// A sink of the walk over the stored message. Its ranges are known from the walk's end on.
class PartMap final : public PartSink {
  public:
    void Begin(const Part& part) override;
    void End(const Part& part) override;

    // The part that a finding is about; null if it is about the whole message, or can't be told.
    const PlacedPart* Find(const Finding& finding) const;
    // The message's own: null before a walk.
    const PlacedPart* Message() const { return parts_.empty() ? nullptr : &parts_.front(); }

  private:
    std::vector<PlacedPart> parts_;  // in the order in which they begin
    std::vector<std::size_t> open_;  // those that have begun
};

}  // namespace maild
