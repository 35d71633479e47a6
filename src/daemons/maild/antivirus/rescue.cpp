#include "daemons/maild/antivirus/rescue.h"

#include <algorithm>
#include <memory>
#include <string>

#include "daemons/maild/antivirus/filesintext.h"
#include "daemons/maild/coding/decoder.h"
#include "daemons/maild/coding/lines.h"
#include "text/ascii.h"
#include "text/base64.h"

namespace maild {

namespace {

// The shortest that could matter; a word alone on its line is a run, too.
constexpr std::size_t kShortestRun = 32;   // digits
constexpr std::size_t kFewestEscapes = 8;  // of quoted-printable

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsCoded(char c) { return Base64Digit(c) >= 0 || c == '=' || c == '-' || c == '_'; }

// A text that is decoded into a file while it goes by.
template <typename Decoder>
class Run {
  public:
    explicit Run(Questions& questions) : questions_(questions) {}

    void Take(std::string_view text, std::size_t weight) {
        if (file_ == nullptr) file_ = std::make_unique<Scratch>();
        std::string out;
        decoder_.Write(text, out);
        if (!file_->Write(out)) questions_.Fail();
        weight_ += weight;
    }
    void End(std::size_t least) {
        if (file_ == nullptr) return;
        std::string out;
        decoder_.Finish(out);
        file_->Write(out);
        if (weight_ >= least) questions_.Put(*file_, "");
        file_.reset();
        decoder_ = Decoder();
        weight_ = 0;
    }

  private:
    Questions& questions_;
    Decoder decoder_;
    std::unique_ptr<Scratch> file_;
    std::size_t weight_ = 0;
};

std::size_t CountEscapes(std::string_view line) {
    std::size_t count = 0;
    for (std::size_t i = 0; i + 2 < line.size(); ++i)
        count += line[i] == '=' && HexDigit(line[i + 1]) >= 0 && HexDigit(line[i + 2]) >= 0;
    return count;
}

}  // namespace

void AskAboutCodedText(Questions& questions, const BodySource& message) {
    LineReader reader(message.file, message.dots, message.body);
    Run<Base64Decoder> base64(questions);
    Run<QuotedDecoder> quoted(questions);
    FilesInText files(questions, "");
    Line line;
    while (questions.Going() && reader.Next(line)) {
        files.Write(line.text);
        // A bare CR is a line end to some.
        std::string_view text = line.text;
        while (!text.empty()) {
            const std::size_t cr = std::min(text.find('\r'), text.size() - 1);
            const std::string_view piece = text.substr(0, cr + 1);
            text.remove_prefix(cr + 1);
            const bool empty = std::all_of(piece.begin(), piece.end(), IsBlank);
            const bool coded = std::all_of(piece.begin(), piece.end(),
                                           [](char c) { return IsBlank(c) || IsCoded(c); }) &&
                               !piece.starts_with("--");
            if (coded && !empty) base64.Take(piece, piece.size());
            if (!coded) base64.End(kShortestRun);
            if (piece.starts_with("--") || (empty && line.begins && line.Content().empty()))
                quoted.End(kFewestEscapes);
            if (!empty) quoted.Take(piece, CountEscapes(piece));
        }
    }
    base64.End(kShortestRun);
    quoted.End(kFewestEscapes);
    files.Finish();
    if (reader.Failed()) questions.Fail();
}

}  // namespace maild
