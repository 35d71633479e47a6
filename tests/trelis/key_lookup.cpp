// Compiled by two tests, never linked: a key of the table is found, one that it lacks is an error.
#include "trelis/keys/settings.h"

constexpr trelis::Key kKey{trelis::kMailDaemonKey, KEY_NAME};
