#include "platform/library.h"

#include <dlfcn.h>

HMODULE LoadLibraryA(LPCSTR path) {
    return path == nullptr || *path != '/' ? nullptr : dlopen(path, RTLD_NOW | RTLD_LOCAL);
}
void* GetProcAddress(HMODULE library, LPCSTR name) { return dlsym(library, name); }
BOOL FreeLibrary(HMODULE library) { return dlclose(library) == 0 ? TRUE : FALSE; }
