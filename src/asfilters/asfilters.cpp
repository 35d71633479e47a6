#include "asfilters/asfilters.h"

// No filter is built in yet: sessions run unfiltered.
int CreateASFilters() { return 0; }
asfilters::CASFilters* GetASFilters() { return nullptr; }
int DestroyASFilters() { return 0; }
