// The keys of an interface that say how it speaks with the rest of the world.
#pragma once

#include <string>

#include "session/options.h"

// `interface`: its name below the interfaces' key. What is missing or can't be used has its
// default.
ConnectionOptions ReadConnectionOptions(const std::string& interface);
