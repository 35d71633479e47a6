#include "asfilters/core.h"

#include "trelis/trelis.h"

int CASFiltersCore::Reload() {
    if (TrelisInit2() < 0) return -1;
    ipList_.Load();
    senderList_.Load();
    harvesting_.Load();
    TrelisUninit();
    return 0;
}
