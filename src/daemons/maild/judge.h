// Inside maild/: the judgement of one stored message: all its forms (forms.h) by the engine, as far
// as that may be believed (engine.h), what is encrypted in it (encrypted.h), and its parts
// (walk.h), of which the engine is asked about those that it could see otherwise than a reader
// (doubtful.h).
#pragma once

#include <span>
#include <string>

#include "daemons/maild/engine/engine.h"
#include "daemons/maild/engine/outcome.h"
#include "daemons/maild/forms/forms.h"
#include "daemons/maild/settings.h"
#include "daemons/maild/walk/walk.h"

struct Judgement {
    maild::WalkResult walk;  // of the form that a receiver makes who does as he should
    // Why not all of it was looked at, whatever the engine has said; empty if it was.
    std::string tooComplex;
    // kInfected if any form is; else why a form could not be scanned, if so; else kClean. Never
    // kEncrypted.
    ScanResult scan;
    std::string encrypted;  // what is encrypted in it, empty if nothing is
    long long size = 0;     // bytes of the file
};

// Opens the file by its path, never through a link. Takes ScanTimeout for all forms and parts
// together. The sinks see the parts of a message in which the engine has found nothing, of the form
// that a receiver makes who does as he should; `ofForms` those, the parts of signed messages that
// lie in a part's bytes, and in further walks the parts of the message's other forms. Any thread.
Judgement JudgeMessage(Engine& engine, const Settings& settings, const char* path,
                       Transfer transfer, std::span<maild::PartSink* const> sinks = {},
                       std::span<maild::PartSink* const> ofForms = {});
