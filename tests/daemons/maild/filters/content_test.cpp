// Rules on what a message says.
#include <sys/mman.h>
#include <time.h>

#include "daemons/maild/content/filter.h"
#include "daemons/maild/walk/walk.h"
#include "packing.h"
#include "platform/file.h"
#include "support/instance.h"

namespace {

using namespace std::string_literals;
using maild::ContentFilter;
using maild::ContentRule;
using maild::ContentRules;

ContentRule Rule(const char* name, const char* where, const char* pattern) {
    ContentRule rule;
    rule.name = name;
    rule.places = maild::ParsePlaces(where).value_or(maild::Places());
    std::string why;
    rule.pattern = maild::Pattern::Compile(pattern, why);
    EXPECT_NE(rule.pattern, nullptr) << why;
    return rule;
}

std::string Filter(const std::string& message, const ContentRules& rules,
                   const maild::Envelope& envelope = {}) {
    ContentFilter filter(rules, envelope,
                         std::chrono::steady_clock::now() + std::chrono::seconds(60));
    platform::File file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file.Write(message.data(), message.size()));
    maild::PartSink* const sinks[] = {&filter};
    maild::WalkMessage(file.Descriptor(), maild::Dots::kPlain, {}, sinks);
    EXPECT_EQ(filter.TooComplex(), "");
    std::string found;
    for (const maild::Finding& each : filter.Findings())
        found += (found.empty() ? "" : " ") + each.rule + " " + each.part + " " + each.reason;
    return found;
}

const std::string kHtml = "Content-Type: text/html; charset=utf-8\n\n";

TEST(Content, WhereAndWhat) {
    const maild::Envelope envelope{"spam@example.org", "a@example.net;b@example.com"};
    const struct {
        const char* name;
        const char* where;
        const char* pattern;
        std::string message;
        const char* found;
    } cases[] = {
        {"sender", "sender", "@example\\.org$", "\n", "r  found in the sender"},
        {"each recipient by itself", "recipient", "^b@", "\n", "r  found in a recipient"},
        {"not the others", "recipient", ";", "\n", ""},
        {"subject", "subject", "caf\u00E9", "Subject: =?iso-8859-1?Q?caf=E9?=\n\n",
         "r  found in the header Subject"},
        {"not the subject within", "subject", "inner",
         "Content-Type: message/rfc822\n\nSubject: inner\n\nx\n", ""},
        {"any header", "header:x-mailer", "(?i)bulk", "X-Mailer: BULK\n\n",
         "r  found in the header X-Mailer"},
        {"not another header", "header:X-Mailer", "bulk", "Subject: bulk\n\n", ""},
        {"text", "text", "needle", "\nhay\nneedle\n", "r 1 found in text"},
        {"text by its charset", "text", "\\x{20AC}10",
         "Content-Type: text/plain; charset=windows-1252\n\n\x80"
         "10\n",
         "r 1 found in text"},
        {"text in UTF-16", "text", "hello",
         "Content-Type: text/plain; charset=utf-16le\nContent-Transfer-Encoding: base64\n\n"
         "aABlAGwAbABvAA==\n",
         "r 1 found in text"},
        {"bytes that are no UTF-8", "text", "b.d", "\n\xFF\xFE bad \xC3\n", "r 1 found in text"},
        {"coded text", "text", "hello", "Content-Transfer-Encoding: base64\n\naGVsbG8=\n",
         "r 1 found in text"},
        {"broken base64", "text", "hello there",
         "Content-Transfer-Encoding: base64\n\naGVs=bG8gdGhlcmU=\n", "r 1 found in text"},
        {"a type that is none", "text", "hello", "Content-Type: a/b text/plain\n\nhello\n",
         "r 1 found in text"},
        {"a coding that isn't one", "text", "hello",
         "Content-Transfer-Encoding: base-64\n\naGVsbG8=\n", "r 1 found in text"},
        {"text in an attachment of text", "text", "hello",
         "Content-Disposition: attachment; filename=a.txt\n\nhello\n", "r 1 found in text"},
        {"not a part that is none", "text", "hello", "Content-Type: image/png\n\nhello\n", ""},
        {"visible text", "text", "buy now", kHtml + "<p>bu<b>y</b>&nbsp; n&#111;w</p>\n",
         "r 1 found in text"},
        {"letters between comments", "text", "viagra", kHtml + "v<!-- x > y -->ia<!---->gra",
         "r 1 found in text"},
        {"characters without width", "text", "viagra", kHtml + "vi\u200Bag&shy;ra&#8203;",
         "r 1 found in text"},
        {"the same in plain text", "text", "viagra now",
         "\nvi\u200Bag\u00ADr\uFE0F\x7F"
         "a\u00A0now\n",
         "r 1 found in text"},
        {"zeros in plain text", "text", "viagra", "\nv\0ia\0gra\n"s, "r 1 found in text"},
        {"lines of plain text", "text", "^one\r?\ntwo\r?$", "\none\ntwo", "r 1 found in text"},
        {"a subject without width", "subject", "viagra", "Subject: =?utf-8?Q?via=E2=80=8Bgra?=\n\n",
         "r  found in the header Subject"},
        {"a subject without fillers", "subject", "viagra", "Subject: =?utf-8?B?dmlhZ3Jh=?= x\n\n",
         "r  found in the header Subject"},
        {"coded words with blanks", "subject", "buy viagra",
         "Subject: =?utf-8?Q?buy viagr?= =?x?Q?a?=\n\n", "r  found in the header Subject"},
        {"UTF-7 under a name of old", "text", "viagra",
         "Content-Type: text/plain; charset=x-unicode-2-0-utf-7\n\nvi+AGE-gra\n",
         "r 1 found in text"},
        {"a charset in pieces", "text", "viagra",
         "Content-Type: text/plain; charset*0=utf; charset*1=-7\n\nvi+AGE-gra\n",
         "r 1 found in text"},
        {"UTF-16 without a mark", "text", "hi",
         "Content-Type: text/plain; charset=utf-16\nContent-Transfer-Encoding: "
         "base64\n\nAGgAaQ==\n",
         "r 1 found in text"},
        {"a comment's other end", "text", "seen", kHtml + "<!-- x --!>seen<!-- -->",
         "r 1 found in text"},
        {"quotes that are no value's", "text", "^seen$", kHtml + "<b \">seen<b \">",
         "r 1 found in text"},
        {"quotes within a value", "text", "^seen$", kHtml + "<b x=y\">seen<b \">",
         "r 1 found in text"},
        {"a value behind blanks", "text", "^seen$", kHtml + "<b x = '>' y=\">\">seen",
         "r 1 found in text"},
        {"a slash before a sign", "text", "^seen$", kHtml + "<b x/=\">seen<b \">",
         "r 1 found in text"},
        {"an end tag without a name", "text", "^seen$", kHtml + "</ \">seen<b a=\"\">",
         "r 1 found in text"},
        {"an instruction", "text", "^seen$", kHtml + "<?-- >seen", "r 1 found in text"},
        {"a comment in a title", "text", "seen", kHtml + "<title><!--</title>seen",
         "r 1 found in text"},
        {"less-than in a text area", "text", "^a<b</textarseen$",
         kHtml + "<textarea>a<b</textar</TEXTAREA >seen", "r 1 found in text"},
        {"a style that is closed by itself", "text", "seen", kHtml + "<svg><style/></svg>seen",
         "r 1 found in text"},
        {"what only browsers hide", "text", "seen", kHtml + "<template>seen</template>",
         "r 1 found in text"},
        {"numbers without semicolons", "text", "^viagra$", kHtml + "&#118iagr&#x61;",
         "r 1 found in text"},
        {"many zeros", "text", "^viagra$", kHtml + "&#" + std::string(60, '0') + "118;iagra",
         "r 1 found in text"},
        {"a name without a semicolon", "text", "^viagra$", kHtml + "via&shygra",
         "r 1 found in text"},
        {"names of what doesn't show", "text", "^viagra$",
         kHtml + "v&lrm;i&NoBreak;a&NegativeThinSpace;gra", "r 1 found in text"},
        {"no number", "text", "^&#;&#x;$", kHtml + "&#;&#x;", "r 1 found in text"},
        {"blocks are apart", "text", "one two", kHtml + "<div>one</div><div>two</div>",
         "r 1 found in text"},
        {"script isn't visible", "text", "hidden",
         kHtml + "<script>hidden</script><style>hidden</style><b title=\"hidden\">x</b>", ""},
        {"behind a script", "text", "seen", kHtml + "<script>if (a<b) '</b>'</SCRIPT >seen",
         "r 1 found in text"},
        {"quotes in a tag", "text", "^seen$", kHtml + "<a title='>x' href=\">\">seen</a>",
         "r 1 found in text"},
        {"less-than alone", "text", "1 < 2", kHtml + "1 < 2", "r 1 found in text"},
        {"unknown entity", "text", "&foo;bar", kHtml + "&foo;bar", "r 1 found in text"},
        {"HTML as it is", "html", "<script src=", kHtml + "<script src=x>", "r 1 found in HTML"},
        {"HTML is not text", "text", "href", kHtml + "<a href=x>", ""},
        {"plain text is not HTML", "html", "needle", "\nneedle\n", ""},
        {"several places", "subject; html;text", "needle", "\nneedle\n", "r 1 found in text"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(Filter(each.message, {{Rule("r", each.where, each.pattern)}}, envelope),
                  each.found);
    }
}

TEST(Content, TheFirstRuleDecides) {
    const ContentRules rules{{Rule("1", "text", "late"), Rule("2", "subject", "early")}};
    EXPECT_EQ(Filter("Subject: early\n\nlate\n", rules), "1 1 found in text");
    EXPECT_EQ(Filter("Subject: early\n\nx\n", rules), "2  found in the header Subject");
}

// Each part that a removal has to take out, and none of a rule that comes later.
TEST(Content, WhatIsToBeRemoved) {
    ContentRules rules;
    rules.rules.push_back(Rule("r", "text;subject", "needle"));
    rules.rules.push_back(Rule("s", "text", "other"));
    rules.rules.front().action = maild::Action::kRemove;
    const std::string parts =
        "Content-Type: multipart/mixed; boundary=b\n\n--b\n\nother\n--b\n\nneedle\n--b\n\n"
        "hay\n--b\nContent-Type: text/html\n\nneed<b>le\n--b--\n";
    EXPECT_EQ(Filter(parts, rules), "r 2 found in text r 4 found in text");
    EXPECT_EQ(Filter("Subject: needle\n" + parts, rules),
              "r  found in the header Subject r 2 found in text r 4 found in text");
    rules.rules.front().action = maild::Action::kReject;
    EXPECT_EQ(Filter(parts, rules), "r 2 found in text");
}

TEST(Content, LargeTexts) {
    const std::string line = std::string(70, 'x') + "\n";
    std::string large;
    while (large.size() < (1 << 20)) large += line;
    const ContentRules rules{{Rule("r", "text", "^one.{0,9000}two$")}};
    EXPECT_EQ(Filter("\n" + large, rules), "");
    const ContentRules anywhere{{Rule("r", "text", "(?s)one.{0,9000}two")}};
    for (const std::size_t at : {0U, 250000U, 262142U, 262144U, 524286U, 1000000U}) {
        std::string text = large;
        text.insert(std::min(text.size(), at + 8000), "two");
        text.insert(at, "one");
        EXPECT_EQ(Filter("\n" + text, anywhere), "r 1 found in text") << at;
    }
    // The ends are those of the whole text.
    EXPECT_EQ(Filter("\n" + large + "end", {{Rule("r", "text", "end$")}}), "r 1 found in text");
    EXPECT_EQ(Filter("\n" + large, {{Rule("r", "text", "^x{70}\r?\n\r?\n")}}), "");
    // Three bytes a character, so that windows end within one.
    std::string wide = "\n";
    while (wide.size() < (1 << 20)) wide += "\u20AC";
    EXPECT_EQ(Filter(wide + "q", {{Rule("r", "text", "\u20ACq")}}), "r 1 found in text");
    EXPECT_EQ(Filter(wide, {{Rule("r", "text", "\\x{FFFD}")}}), "");
}

double SecondsOf(const auto& work) {
    timespec from{};
    timespec to{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &from);
    work();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &to);
    return static_cast<double>(to.tv_sec - from.tv_sec) +
           static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
}

TEST(Content, PatternsThatNeverEnd) {
    const struct {
        const char* pattern;
        char fill;
    } cases[] = {{"(a+)+$", 'a'},          {"(a|a)*b", 'a'},           {"(.*)*\\1!", 'a'},
                 {"(?s)(.*?,){25}P", ','}, {"(x+x+)+y", 'x'},          {"(?:(?:a*)*)*c", 'a'},
                 {"(?R)?a+(?R)?z", 'a'},   {"x[^y]{0,50000}[yz]", 'x'}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.pattern);
        // Another rule is asked all the same.
        const ContentRules rules{{Rule("slow", "text", each.pattern), Rule("r", "text", "needle")}};
        const std::string message = "\n" + std::string(400000, each.fill) + "\nneedle\n";
        std::string found;
        const double seconds = SecondsOf([&] { found = Filter(message, rules); });
        EXPECT_EQ(found, "r 1 found in text");
        EXPECT_LT(seconds, 6.0);
    }
}

TEST(Content, BrokenRules) {
    for (const char* pattern : {"(", "[a", "a{2,1}", "(?<n>a)(?<n>b)", "\\C", "*a"}) {
        std::string why;
        EXPECT_EQ(maild::Pattern::Compile(pattern, why), nullptr) << pattern;
        EXPECT_NE(why, "");
    }
    for (const char* where : {"", ";", "body", "header:", "subject;nowhere"})
        EXPECT_FALSE(maild::ParsePlaces(where)) << where;
}

}  // namespace
