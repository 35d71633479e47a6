#include "daemons/maild/antivirus/doubtful.h"

#include <algorithm>

#include "daemons/maild/antivirus/insidepart.h"
#include "daemons/maild/antivirus/rescue.h"
#include "daemons/maild/attachments/names.h"
#include "daemons/maild/attachments/spill.h"
#include "daemons/maild/coding/readings.h"
#include "daemons/maild/forms/blocks.h"
#include "text/ascii.h"

namespace maild {

namespace {

constexpr int kMostNesting = 3;
constexpr std::size_t kStart = 32;  // bytes by which a signature is known
// The engine doesn't look into some kinds at all, and into a message in a message only if its first
// headers are of those that it knows; and a multipart's type is another one to it by a header in
// front of its first part.
bool IsClosed(const Part& part) {
    return part.kind == PartKind::kMessage || part.type == "multipart/parallel" || part.oddPreamble;
}

// A detached signature that nobody would take for anything else.
bool IsSignature(const Part& part, std::string_view start) {
    const bool typed = part.type == "application/pgp-signature" ||
                       part.type == "application/pkcs7-signature" ||
                       part.type == "application/x-pkcs7-signature";
    const bool named = std::all_of(part.names.begin(), part.names.end(), [](const auto& name) {
        const std::string lower = LowerCase(name);
        return lower.ends_with(".asc") || lower.ends_with(".sig") || lower.ends_with(".p7s");
    });
    const bool begins = start.starts_with("-----BEGIN PGP SIGNATURE") ||
                        (start.size() > 1 && start[0] == '\x30' && (start[1] & 0x80) != 0);
    return typed && named && begins;
}

// What is taken for a message by some: a file that mail programs open as they open what is
// forwarded, and any kind of message but those that are reports.
bool IsSavedMail(const Part& part) {
    constexpr std::string_view kReports[] = {
        "message/delivery-status",          "message/global-delivery-status",
        "message/disposition-notification", "message/global-disposition-notification",
        "message/feedback-report",          "message/tracking-status"};
    if (part.type.starts_with("message/") &&
        std::find(std::begin(kReports), std::end(kReports), part.type) == std::end(kReports))
        return true;
    return std::any_of(part.names.begin(), part.names.end(),
                       [](const std::string& name) { return CalledMessage(ReadingsOfName(name)); });
}

// Whether a line begins as the headers do that say what a body is: what has none is a text without
// parts to any reader, however long what stands there for headers.
bool SaysWhatItIs(int file) {
    constexpr std::string_view kWord = "content";
    std::size_t met = 0;  // characters of the word in the line that goes by
    bool counts = true;   // the line has been the word so far
    const bool read = ReadBlocks(file, 0, [&](std::string_view text, off_t) {
        for (const char c : text) {
            if (c == '\n' || c == '\r') {
                met = 0;
                counts = true;
            } else if (counts) {
                counts = FoldCase(c) == kWord[met];
                if (counts && ++met == kWord.size()) return false;
            }
        }
        return true;
    });
    return !read;
}

bool IsCoded(const Part& part) {
    return part.coding != Coding::kPlain && part.coding != Coding::kUnknown;
}

// Has questions of its own: the parts that are open to doubt themselves.
bool IsOfParts(Ambiguous what) {
    return what == Ambiguous::kOddCoding || what == Ambiguous::kHiddenCoding ||
           what == Ambiguous::kEncodedContainer || what == Ambiguous::kPartialMessage ||
           what == Ambiguous::kExternalBody;
}

}  // namespace

void DoubtfulParts::Begin(const Part& part) {
    const bool root = around_.empty() || around_.back().kind == PartKind::kMessage;
    around_.push_back({part.kind});
    start_.clear();
    saved_ = false;
    // Others see what lies in a part's bytes also while there is no engine to be asked.
    if (part.kind != PartKind::kLeaf || !Wanted()) return;
    first_ = true;
    place_ = part.place;
    zip_.emplace();
    const bool isMessage = part.type.starts_with("message/");
    if (part.isText || isMessage || part.type.starts_with("multipart/"))
        text_ = std::make_unique<FilesInText>(questions_, part.place);
    if (CalendarFiles::MayBe(part))
        calendar_ = std::make_unique<CalendarFiles>(questions_, part.place);
    const bool isSigned = SignedData::MayBe(part);
    saved_ = IsSavedMail(part);
    if ((isMessage && root) || isSigned || saved_) {
        wrapped_ = std::make_unique<Scratch>();
        wrapped_->Write(kMessageStart);
        if (isSigned) signed_.emplace(*wrapped_);
    }
}

void DoubtfulParts::Data(std::span<const std::byte> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    // The walk hands on the first bytes in one piece, as long as the part has so many.
    if (first_ && text.starts_with(TnefReader::kMark))
        tnef_ = std::make_unique<TnefReader>(questions_, place_);
    if (first_) start_ = text.substr(0, kStart);
    first_ = false;
    if (tnef_ != nullptr) tnef_->Write(text);
    if (text_ != nullptr) text_->Write(text);
    if (calendar_ != nullptr) calendar_->Write(text);
    if (zip_ && !zip_->Write(text)) questions_.Fail();
    if (signed_) {
        if (!signed_->Write(text)) questions_.Fail();
    } else if (wrapped_ != nullptr && !wrapped_->Write(text)) {
        questions_.Fail();
    }
}

void DoubtfulParts::End(const Part& part) {
    const Open open = around_.back();
    around_.pop_back();
    if (!around_.empty()) {
        ++around_.back().children;
        around_.back().signature = part.kind == PartKind::kLeaf && IsSignature(part, start_);
    }
    if (part.kind == PartKind::kLeaf) {
        if (tnef_ != nullptr) tnef_->Finish();
        if (text_ != nullptr) {
            text_->Finish();
            if (text_->Any() && !hidden_) hidden_ = {Ambiguous::kHiddenCoding, part.place};
        }
        if (wrapped_ != nullptr && (signed_ || saved_)) {
            AskWithin(part);
        } else if (wrapped_ != nullptr) {
            questions_.Put(*wrapped_, part.place);
        }
        if (zip_) zip_->Finish(questions_, part.place);
        zip_.reset();
        signed_.reset();
        tnef_.reset();
        if (calendar_ != nullptr) calendar_->Finish();
        calendar_.reset();
        text_.reset();
        wrapped_.reset();
        if (part.oddCoding) AskReadings(part);
    } else {
        // The engine looks into what is signed as it should be, and nothing else that says so.
        const bool oddlySigned =
            part.type == "multipart/signed" && !(open.children == 2 && open.signature);
        AskContainer(part, IsClosed(part) || oddlySigned);
    }
}

void DoubtfulParts::AskReadings(const Part& part) {
    for (const Reading& reading : ReadingsOf(part.coding, part.oddHeaders)) {
        if (!questions_.Going()) return;
        Scratch file;
        if (!DecodeBody(part.source, reading, file)) questions_.Fail();
        questions_.Put(file, part.place);
    }
}

void DoubtfulParts::AskContainer(const Part& part, bool closed) {
    for (const Coding coding : {Coding::kPlain, part.coding}) {
        // Uncoded the engine has seen it, but for those that it doesn't look into.
        if (coding == Coding::kPlain ? !closed : !IsCoded(part)) continue;
        if (!questions_.Going()) return;
        Scratch file;
        file.Write(kMessageStart);
        if (part.kind == PartKind::kMultipart) {
            std::string boundary;
            for (const char c : part.boundaries.front()) {
                if (c == '"' || c == '\\') boundary += '\\';
                boundary += c;
            }
            file.Write("MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"" +
                       boundary + "\"\r\n\r\n");
        }
        if (!DecodeBody(part.source, Reading{coding}, file)) questions_.Fail();
        questions_.Put(file, part.place);
    }
}

void DoubtfulParts::AskWithin(const Part& part) {
    const long long start = sizeof kMessageStart - 1;
    if (wrapped_->Size() == start) return;  // encrypted, or nothing of the kind
    questions_.Put(*wrapped_, part.place);
    if (!Wanted()) return;
    const int file = wrapped_->Rewind();
    if (nesting_ >= kMostNesting) {
        unwalked_ = "messages in the bytes of messages, too many of them in each other";
        return;
    }
    InsidePart inside(part, others_);
    PartSink* const told[] = {&inside};
    DoubtfulParts inner(questions_, {file, Dots::kPlain, {0, wrapped_->Size()}}, limits_,
                        nesting_ + 1, told);
    PartSink* const sinks[] = {&inside, &inner};
    const WalkResult walk = WalkMessage(file, Dots::kPlain, limits_, sinks);
    if (walk.end == WalkEnd::kTooComplex && !SaysWhatItIs(file)) {
        AskForFiles(file, part.place);
    } else if (walk.end != WalkEnd::kWhole) {
        unwalked_ = walk.why;
    }
    if (!inner.Unwalked().empty()) unwalked_ = inner.Unwalked();
}

// Of a file that is signed, or called a message, and is none.
void DoubtfulParts::AskForFiles(int file, const std::string& place) {
    FilesInText files(questions_, place);
    const bool read = ReadBlocks(file, 0, [&](std::string_view text, off_t) {
        files.Write(text);
        return true;
    });
    files.Finish();
    if (!read) questions_.Fail();
}

void DoubtfulParts::Done(const WalkResult& result) {
    const bool structure = std::any_of(result.ambiguities.begin(), result.ambiguities.end(),
                                       [](const Ambiguity& each) { return !IsOfParts(each.what); });
    if (structure && questions_.Going()) AskAboutCodedText(questions_, message_);
}

}  // namespace maild
