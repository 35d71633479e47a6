#include "libstats/libstats.h"

// No statistics are sent yet: callers find no client and no record.
libstats::CStatsRequest* CreateStatsRequest() { return nullptr; }
void FreeStatsRequest(libstats::CStatsRequest*) {}
int InitLibStats() { return 0; }
libstats::CLibStats* GetLibStats() { return nullptr; }
int ReleaseLibStats() { return 0; }
