// The words behind `vtstatd passwd`: makes, changes and deletes accounts.
#pragma once

namespace stats {

// argv[0] is the word passwd itself. The process's exit code: 0, 1 on failure, 2 for wrong usage.
int PasswdCommand(int argc, char** argv);

}  // namespace stats
