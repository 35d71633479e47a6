// Inside changes/: `vtregistry edit`.
#pragma once

#include "daemons/registryd/typed.h"

// KEY: opens what stands at and below it in the person's editor ($VISUAL, $EDITOR, or the
// system's), and makes what was changed there count, all or none. With a slip in it the person is
// asked whether to go on editing; without a terminal nothing is changed. Where what was written did
// not come to count, its file stays, and the person is told where. The exit code.
int Edit(const Arguments& arguments);
