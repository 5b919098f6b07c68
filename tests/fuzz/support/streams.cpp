#include "tests/fuzz/support/streams.h"

#include <stdio.h>

#include <mutex>
#include <set>

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
FILE* __real_fopen(const char* path, const char* mode);
int __real_fclose(FILE* stream);
}

namespace peltex_fuzz {
namespace {

std::mutex gLock;
std::set<FILE*> gStreams;  // guarded by gLock

}  // namespace

size_t closeOpenStreams() {
    const std::lock_guard<std::mutex> lock(gLock);
    const size_t count = gStreams.size();
    for (FILE* stream : gStreams) {
        __real_fclose(stream);
    }
    gStreams.clear();
    return count;
}

}  // namespace peltex_fuzz

extern "C" {

FILE* __wrap_fopen(const char* path, const char* mode) {
    FILE* stream = __real_fopen(path, mode);
    if (stream != nullptr) {
        const std::lock_guard<std::mutex> lock(peltex_fuzz::gLock);
        peltex_fuzz::gStreams.insert(stream);
    }
    return stream;
}

int __wrap_fclose(FILE* stream) {
    {
        // Before it is closed: another thread may be given the same one right after.
        const std::lock_guard<std::mutex> lock(peltex_fuzz::gLock);
        peltex_fuzz::gStreams.erase(stream);
    }
    return __real_fclose(stream);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
