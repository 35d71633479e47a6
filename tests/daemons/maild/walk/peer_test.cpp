// The walk agrees with a parser that reads the whole message first, on messages that are as they
// should be.
#include "outline.h"
#include "text/base64.h"

// Behind those: it has macros of the platform's names.
#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <random>

namespace {

// Makes messages of random structure.
class Maker {
  public:
    explicit Maker(unsigned seed) : random_(seed) {}

    std::string Message(int depth = 0) { return "Subject: " + Text(20) + "\r\n" + Entity(depth); }

  private:
    unsigned Up(unsigned most) { return static_cast<unsigned>(random_() % most); }
    std::string Text(unsigned most) {
        static constexpr char kLetters[] = "abc de-.=xyz";
        std::string text;
        for (unsigned i = Up(most); i > 0; --i) text += kLetters[Up(12)];
        return "t" + text + "t";
    }
    std::string Entity(int depth) {
        const unsigned kind = depth > 4 ? 0 : Up(6);
        if (kind < 3) return Leaf();
        if (kind == 5) return "Content-Type: message/rfc822\r\n\r\n" + Message(depth + 1);
        const std::string boundary = "b" + std::to_string(++boundaries_) + "=_x";
        std::string text =
            "Content-Type: multipart/mixed;\r\n boundary=\"" + boundary + "\"\r\n\r\n";
        if (Up(2) == 0) text += "preamble\r\n";
        for (unsigned i = 1 + Up(4); i > 0; --i)
            text += "--" + boundary + "\r\n" + Entity(depth + 1) + "\r\n";
        return text + "--" + boundary + "--\r\n";
    }
    std::string Leaf() {
        std::string lines;
        for (unsigned i = Up(5); i > 0; --i) lines += Text(60) + "\r\n";
        switch (Up(3)) {
            case 0:
                return "Content-Type: application/x; name=f\r\nContent-Transfer-Encoding: "
                       "base64\r\n\r\n" +
                       Base64Encode(lines);
            case 1: {
                std::string coded;
                for (const char c : lines)
                    coded += c == '=' ? std::string("=3D") : std::string(1, c);
                return "Content-Type: text/html\r\nContent-Transfer-Encoding: "
                       "quoted-printable\r\n\r\n" +
                       coded;
            }
            default:
                return "Content-Type: text/plain; charset=utf-8\r\n\r\n" + lines;
        }
    }

    std::mt19937 random_;
    int boundaries_ = 0;
};

void Tell(GMimeObject* object, std::string& text) {
    if (GMIME_IS_MULTIPART(object)) {
        for (int i = 0; i < g_mime_multipart_get_count(GMIME_MULTIPART(object)); ++i)
            Tell(g_mime_multipart_get_part(GMIME_MULTIPART(object), i), text);
    } else if (GMIME_IS_MESSAGE_PART(object)) {
        Tell(g_mime_message_get_mime_part(
                 g_mime_message_part_get_message(GMIME_MESSAGE_PART(object))),
             text);
    } else {
        GMimeStream* out = g_mime_stream_mem_new();
        g_mime_data_wrapper_write_to_stream(g_mime_part_get_content(GMIME_PART(object)), out);
        const GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(out));
        char* type = g_mime_content_type_get_mime_type(g_mime_object_get_content_type(object));
        text += std::string("(") + type + "[" +
                std::string(reinterpret_cast<const char*>(bytes->data), bytes->len) + "])";
        g_free(type);
        g_object_unref(out);
    }
}

std::string PeerTells(const std::string& message) {
    GMimeStream* stream = g_mime_stream_mem_new_with_buffer(message.data(), message.size());
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    GMimeMessage* parsed = g_mime_parser_construct_message(parser, nullptr);
    std::string text;
    Tell(g_mime_message_get_mime_part(parsed), text);
    g_object_unref(parsed);
    g_object_unref(parser);
    g_object_unref(stream);
    return text;
}

class Leaves final : public maild::PartSink {
  public:
    void Begin(const maild::Part& part) override {
        if (part.kind == maild::PartKind::kLeaf) text += "(" + part.type + "[";
    }
    void Data(std::span<const std::byte> bytes) override {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    void End(const maild::Part& part) override {
        if (part.kind == maild::PartKind::kLeaf) text += "])";
    }
    void Done(const maild::WalkResult& result) override {
        EXPECT_EQ(result.end, maild::WalkEnd::kWhole);
        for (const maild::Ambiguity& each : result.ambiguities)
            ADD_FAILURE() << KindOf(each.what).words;
    }
    std::string text;
};

TEST(Walk, AgreesWithAPeer) {
    g_mime_init();
    for (unsigned seed = 1; seed <= 2000; ++seed) {
        const std::string message = Maker(seed).Message();
        Leaves leaves;
        maild::PartSink* const sinks[] = {&leaves};
        WalkMessage(FileOf(message).Descriptor(), maild::Dots::kPlain, {}, sinks);
        ASSERT_EQ(leaves.text, PeerTells(message)) << "seed " << seed << "\n" << message;
    }
}

}  // namespace
