// Inside maild/: whether an engine could find more in a message than its bytes. Asked only of
// messages that an engine has called clean which is silent about its limits (engine.h).
#pragma once

// False: there is nothing in it that is coded or packed. All of it is text without control bytes,
// no word in it names a coding or begins a format that packs text into text, and its
// quoted-printable escapes, if any, make neither control bytes nor letters. True on doubt: also for
// ordinary mail with an attachment or a body in base64. Any thread.
//
// Sound as far as it goes: a packed format that consists of printable bytes alone, and isn't among
// those named in the source, would be taken for text.
bool CouldUnpack(int file);
