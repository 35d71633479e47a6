// walk/: a stored message as its parts. One pass over the file (walk.h) tells every rule what there
// is, part by part, decoded once for all of them.
//
// This header: what is known of one part when it begins, and whom it is told.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "daemons/maild/coding/source.h"

namespace maild {

enum class PartKind { kLeaf, kMultipart, kMessage };

// One part. Texts are as the part's headers declare them, which may be wrong or forged.
struct Part {
    PartKind kind = PartKind::kLeaf;
    // As IMAP numbers parts: "1.2.3". A multipart that is the whole of a message has the place of
    // that message: "" for the outermost.
    std::string place;
    int depth = 0;  // parts around it
    // In small letters: "text/html". "text/plain" where nothing, or nothing sensible, is declared,
    // "message/rfc822" in a digest.
    std::string type;
    std::string charset;      // in small letters; empty if none is declared
    std::string disposition;  // in small letters: "attachment"; empty if none is declared
    std::string contentId;    // without its angle brackets
    Coding coding = Coding::kPlain;
    std::string codingText;  // as declared, in small letters; empty if none is
    // Every reading of its name, each once, in UTF-8: `filename` before `name`; RFC 2231 and RFC
    // 2047 decoded, as well as raw. Readers differ in which of them they show and save by, so a
    // rule on names has to look at all.
    std::vector<std::string> names;
    // Of a multipart: each reading of its boundary; more than one only where readers differ.
    std::vector<std::string> boundaries;
    bool inSigned = false;     // within multipart/signed or S/MIME's signed data
    bool inEncrypted = false;  // within multipart/encrypted or S/MIME's enveloped data
    bool isText = false;       // text/*, but for attachments
    bool isHtml = false;       // text/html and XHTML
    // False within a message or multipart that is itself coded: then both ranges are those of the
    // coded part around it. Ends are known from End on only.
    bool ownRange = true;
    Range whole;  // headers and body
    Range body;   // without the line end that belongs to the boundary behind it
    BodySource source;
    bool oddHeaders = false;  // its coding is declared so that readers take different ones
    // From End on: it is broken so that readers undo it differently, or declared so.
    bool oddCoding = false;
    // From End on: of its coding nothing is odd but that lines of base64 end within a group, which
    // only who decodes each line by itself sees.
    bool cutGroups = false;
    // From End on: it ended before the message in which it lies, as what a bounce returns does.
    bool cutOff = false;
    // From End on, of a multipart: what stands in front of its first part could be taken for
    // headers.
    bool oddPreamble = false;
};

// One header of a message.
struct HeaderField {
    std::string name;     // as written
    std::string raw;      // behind the colon, unfolded, without blanks at its ends
    std::string decoded;  // RFC 2047 decoded, in UTF-8
};

struct WalkResult;
class Questions;

// Takes a walk's parts as they come, on the walk's thread. Several sinks see one walk, each call in
// the order of the list. What is handed over lasts for the call, a Part to its End.
//
//   Headers of the message, Begin and End around each part, Data of leaves in between, Done.
//
// Parts lie within each other as they do in the message; the Headers of a message in the message
// stand behind the Begin of its part. A walk that ends early still ends all that has begun.
class PartSink {
  public:
    virtual ~PartSink() = default;
    // In front of a walk: by what the engine can be asked about what lies in parts. Null behind it.
    virtual void AskThrough(Questions*) {}
    // All of them, in order. `place` is the message's, as of Part.
    virtual void Headers(std::span<const HeaderField>, const std::string& /*place*/) {}
    virtual void Begin(const Part&) {}
    // Decoded bytes of the leaf that has begun, in its own charset (text.h converts), in pieces of
    // any size.
    virtual void Data(std::span<const std::byte>) {}
    virtual void End(const Part&) {}
    // Behind everything, once.
    virtual void Done(const WalkResult&) {}
};

}  // namespace maild
