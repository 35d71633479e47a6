// Inside maild/: the judgement of one stored message: all its forms (forms.h) by the engine, as far
// as that may be believed (engine.h), and what is encrypted in it (encrypted.h).
#pragma once

#include <string>

#include "daemons/maild/engine/engine.h"
#include "daemons/maild/engine/outcome.h"
#include "daemons/maild/forms/forms.h"
#include "daemons/maild/settings.h"

struct Judgement {
    // kInfected if any form is; else why a form could not be scanned, if so; else kClean. Never
    // kEncrypted.
    ScanResult scan;
    std::string encrypted;  // what is encrypted in it, empty if nothing is
    long long size = 0;     // bytes of the file
};

// Opens the file by its path, never through a link. Takes ScanTimeout for all forms together. Any
// thread.
Judgement JudgeMessage(Engine& engine, const Settings& settings, const char* path,
                       Transfer transfer);
