// Inside maild/: what the engine's answer to one scan says. It is another process's, perhaps over a
// network: only a whole answer of the form that clamd gives counts as "clean".
//
//   fd[10]: OK                          the file was handed over as a descriptor
//   stream: OK                          its bytes were sent
//   stream: Win.Test.EICAR_HDB-1 FOUND
//   ... size limit exceeded. ERROR
#pragma once

#include <string_view>

#include "daemons/maild/engine/outcome.h"

// An answer without its zero byte, and without its number in a session. Whatever else: kFailed.
ScanResult ReadAnswer(std::string_view answer);
