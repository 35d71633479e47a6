#include "platform/library.h"

#include <dlfcn.h>

#include <cstring>

#include "platform/service.h"

namespace {

// What callers look for at run time, for older systems lack it; here it is always there.
constexpr char kOwnLibrary[] = "Advapi32.dll";
char g_own;

bool IsOwn(HMODULE library) { return library == &g_own; }

}  // namespace

HMODULE LoadLibraryA(LPCSTR path) {
    if (path == nullptr) return nullptr;
    if (std::strcmp(path, kOwnLibrary) == 0) return &g_own;
    return *path != '/' ? nullptr : dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void* GetProcAddress(HMODULE library, LPCSTR name) {
    if (!IsOwn(library)) return dlsym(library, name);
    return std::strcmp(name, "ChangeServiceConfig2A") == 0
               ? reinterpret_cast<void*>(&ChangeServiceConfig2A)
               : nullptr;
}

BOOL FreeLibrary(HMODULE library) { return IsOwn(library) || dlclose(library) == 0 ? TRUE : FALSE; }
