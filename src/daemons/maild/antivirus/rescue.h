// Inside antivirus/: a message whose structure is ambiguous, without regard for its structure: all
// that looks coded in it is put to the engine, whatever a reader takes for the part that it is in.
#pragma once

#include "daemons/maild/antivirus/questions.h"
#include "daemons/maild/coding/source.h"

namespace maild {

//   runs of lines of base64      each by itself, its blanks and empty lines left out
//   pieces with many escapes     of quoted-printable, from an empty line to the next boundary
//   files in uuencode and yEnc   wherever they begin
void AskAboutCodedText(Questions& questions, const BodySource& message);

}  // namespace maild
