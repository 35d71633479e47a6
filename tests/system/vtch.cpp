// A crash reporter that only tells how it was called, for the test that it is attached.
#include <cstdio>
#include <cstdlib>

extern "C" int EnableCrashHandler(const char* directory, const char* label, int a, int b, int c,
                                  int d) {
    if (const char* path = std::getenv("VTCH_OUTPUT")) {
        if (std::FILE* file = std::fopen(path, "w")) {
            std::fprintf(file, "%s %s %d %d %d %d", directory, label, a, b, c, d);
            std::fclose(file);
        }
    }
    return 1;
}
