// The end of a message: what is stored must hold no line of one dot that a reader takes for the
// end, whatever it takes for the end of a line, and the cuts of the stream must make no difference.
#include <cstdint>
#include <string>
#include <string_view>

#include "session/message/data_scanner.h"

namespace {

bool EndsLine(char byte) { return byte == '\r' || byte == '\n' || byte == '\0'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const bool pipelining = (data[0] & 1) != 0;
    const std::string_view stream(reinterpret_cast<const char*>(data) + 2, size - 2);
    std::string text;
    DataScanner scanner(pipelining);
    const std::size_t used = scanner.Feed(stream, text);
    for (std::size_t at = 0; at + 1 < text.size(); ++at) {
        const bool alone = text[at] == '.' && (at == 0 || EndsLine(text[at - 1]));
        if (alone && EndsLine(text[at + 1])) __builtin_trap();
    }
    std::string pieces;
    DataScanner again(pipelining);
    std::size_t at = 0;
    const std::size_t step = 1 + data[1] % 7;
    while (at < stream.size()) {
        const std::string_view piece = stream.substr(at, step);
        const std::size_t taken = again.Feed(piece, pieces);
        at += taken;
        if (taken < piece.size()) break;
    }
    if (pieces != text || at != used || again.Ending() != scanner.Ending()) __builtin_trap();
    return 0;
}
