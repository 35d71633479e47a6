// Inside maild/: the parts of a message that the engine could see otherwise than a reader, each put
// to it as a file:
//
//   a leaf whose coding is broken or declared oddly    each reading (coding/readings.h)
//   a coded message or multipart                       as it is when it is decoded
//   a container into which the engine doesn't look     as a message that it takes apart
//   a message within its S/MIME signature              as a message, walked as well
//   files in a text by uuencode or yEnc, files in TNEF each by itself
//   a file in a calendar's entry                       by itself
//   a zip behind other bytes of a file                 by itself
//   a message whose structure is ambiguous             all that looks coded in it (rescue.h)
//
// Ordinary mail has none of these.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemons/maild/antivirus/calendarfiles.h"
#include "daemons/maild/antivirus/filesintext.h"
#include "daemons/maild/antivirus/questions.h"
#include "daemons/maild/antivirus/signeddata.h"
#include "daemons/maild/antivirus/tnef.h"
#include "daemons/maild/antivirus/zipbehind.h"
#include "daemons/maild/walk/walk.h"

namespace maild {

class DoubtfulParts final : public PartSink {
  public:
    // All of them outlive it. `message`: where all of it lies; `limits`: for walks over messages
    // that lie in a part's bytes; `nesting`: how many such walks are around this one.
    // `others`: they see the parts of such messages, too.
    DoubtfulParts(Questions& questions, const BodySource& message, const WalkLimits& limits,
                  int nesting = 0, std::span<PartSink* const> others = {})
        : questions_(questions),
          message_(message),
          limits_(limits),
          nesting_(nesting),
          others_(others) {}

    void Begin(const Part& part) override;
    void Data(std::span<const std::byte> bytes) override;
    void End(const Part& part) override;
    void Done(const WalkResult& result) override;

    // Whether there was a file in a text.
    const std::optional<Ambiguity>& Hidden() const { return hidden_; }
    // Why a message in a part's bytes was not walked to its end; empty if all were.
    const std::string& Unwalked() const { return unwalked_; }

  private:
    bool Wanted() const { return questions_.Going() || !others_.empty(); }
    void AskReadings(const Part& part);
    void AskContainer(const Part& part, bool closed);
    void AskWithin(const Part& part);
    void AskForFiles(int file, const std::string& place);

    Questions& questions_;
    const BodySource message_;
    const WalkLimits& limits_;
    const int nesting_;
    const std::span<PartSink* const> others_;
    std::string unwalked_;
    struct Open {
        PartKind kind;
        int children = 0;
        bool signature = false;  // the last one of them is one, by all that a reader shows of it
    };
    std::vector<Open> around_;  // the parts that are open
    std::optional<Ambiguity> hidden_;
    // Of the leaf that is open:
    std::unique_ptr<FilesInText> text_;
    std::unique_ptr<CalendarFiles> calendar_;
    std::unique_ptr<TnefReader> tnef_;
    std::optional<ZipBehind> zip_;
    std::string place_;
    std::string start_;                 // its first bytes
    bool first_ = false;                // none of its bytes have come
    std::unique_ptr<Scratch> wrapped_;  // a message of a kind that isn't taken apart, signed, saved
    std::optional<SignedData> signed_;
    bool saved_ = false;  // it is a message as a file
};

}  // namespace maild
