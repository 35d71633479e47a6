// `vtregistry set`. A short name is for people: the key has to be a known one and the value one
// that programs take as it is, and it may be written with units. A full path is for programs as
// well: it is stored as it is, and what programs won't take so is only told.
#pragma once

#include "daemons/registryd/typed.h"

// [--force] KEY VALUE. With --force the value is stored as it is, and nothing told. The exit code.
int SetKey(const Arguments& arguments);
