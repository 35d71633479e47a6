#include "daemons/maild/coding/readings.h"

#include <string>

#include "daemons/maild/coding/lines.h"

namespace maild {

namespace {

constexpr Reading kOfBase64[] = {
    {Coding::kBase64},
    {Coding::kBase64, Filler::kEnd},
    {Coding::kBase64, Filler::kIgnore},
    {Coding::kBase64, Filler::kAnew, Foreign::kEnd},
    {Coding::kBase64, Filler::kAnew, Foreign::kUrl},
    {Coding::kBase64, Filler::kAnew, Foreign::kLine},
    {Coding::kBase64, Filler::kAnew, Foreign::kIgnore, true},
};
constexpr Reading kOthers[] = {
    {},
    {Coding::kQuotedPrintable},
    {Coding::kQuotedPrintable, Filler::kAnew, Foreign::kIgnore, false, false},
    {Coding::kQuotedPrintable, Filler::kAnew, Foreign::kIgnore, false, true, true},
    {Coding::kUuencode},
    {Coding::kYenc},
};

}  // namespace

std::vector<Reading> ReadingsOf(Coding coding, bool oddHeaders) {
    std::vector<Reading> readings;
    if (oddHeaders || coding == Coding::kBase64)
        readings.insert(readings.end(), std::begin(kOfBase64), std::end(kOfBase64));
    if (oddHeaders || coding != Coding::kBase64)
        readings.insert(readings.end(), std::begin(kOthers), std::end(kOthers));
    return readings;
}

bool DecodeBody(const BodySource& source, const Reading& reading, Scratch& scratch) {
    LineReader reader(source.file, source.dots, source.body);
    Base64Decoder base64(reading.filler, reading.foreign);
    QuotedDecoder quoted(reading.keepOdd, reading.keepBlanks);
    UuDecoder uu;
    YencDecoder yenc;
    std::string out;
    Line line;
    while (reader.Next(line)) {
        switch (reading.coding) {
            case Coding::kBase64:
                if (reading.foreign == Foreign::kLine && Base64Decoder::HasForeign(line.Content()))
                    break;
                base64.Write(line.text, out);
                if (reading.eachLine) base64.Finish(out);
                break;
            case Coding::kQuotedPrintable:
                quoted.Write(line.text, out);
                break;
            case Coding::kUuencode:
                uu.TakeLine(line.text, out);
                break;
            case Coding::kYenc:
                yenc.TakeLine(line.text, out);
                break;
            case Coding::kPlain:
            case Coding::kUnknown:
                out += line.text;
        }
        if (out.size() >= 32768) {
            if (!scratch.Write(out)) return false;
            out.clear();
        }
    }
    base64.Finish(out);
    quoted.Finish(out);
    return scratch.Write(out) && !reader.Failed();
}

}  // namespace maild
