// The instance's directory: all state of one instance lives below it.
#pragma once

#include <string>

namespace platform {

// The directory of this process's instance: VANTREL_HOME, or the default for the user. Without a
// final slash. Made when first asked for, with the folders pipes, tmp, services, registry and modes
// that let no other user in. Empty if it can't be made, others can write to it, or it is owned by
// another user (HomeError says which); but root becomes that user, with the power to serve low
// ports as all that is left of its own. So a program asks for it before it starts a thread.
const std::string& Home();
// The directory that Home would make, where it isn't there yet; else empty. Makes nothing.
std::string MissingHome();
// Why Home is empty, for a person; empty text if it isn't.
const std::string& HomeError();
// Why there is nothing to look at, for a person: HomeError, or that the directory isn't there,
// which then isn't made. Empty text if there is something.
std::string WhyNoHome();
// Home plus "/" plus the relative path. Empty if there is no home.
std::string HomePath(const char* relative);

}  // namespace platform
