// An engine's answers: "clean" is one of two forms, whatever else is in it; what comes of the watch
// over its signatures doesn't hang on how it is cut.
#include <cstdint>
#include <string_view>

#include "daemons/maild/engine/answer.h"
#include "daemons/maild/engine/signatures.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const ScanResult result = ReadAnswer(bytes);
    if (result.outcome == ScanOutcome::kClean && bytes != "stream: OK" &&
        !(bytes.starts_with("fd[") && bytes.find_first_not_of("0123456789", 3) == size - 5 &&
          bytes.ends_with("]: OK")))
        __builtin_trap();
    for (const char c : result.text) {
        if (c == '\0' || c == '\n' || c == '\r') __builtin_trap();
    }
    SignatureWatch whole;
    SignatureWatch single;
    const bool changed = whole.Take(bytes);
    bool changedSingly = false;
    for (const char& c : bytes) changedSingly = single.Take({&c, 1}) || changedSingly;
    if (changed != changedSingly || whole.Version() != single.Version()) __builtin_trap();
    return 0;
}
