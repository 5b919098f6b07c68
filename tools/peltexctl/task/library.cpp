// Tested by tests/client/peltexctl.md.
#include "task/library.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "ui/exit_code.h"

namespace peltexctl {

namespace {

template <typename Function>
void Resolve(void* handle, const std::string& file, const char* name, Function** function) {
    *function = reinterpret_cast<Function*>(dlsym(handle, name));
    if (*function == nullptr) {
        throw Failure(kNoLibraryOrData,
                      fmt::format("{}: has no function {}, so it is not the library", file, name));
    }
}

}  // namespace

Library LoadLibrary(const std::optional<std::string>& path) {
    // With the version of its interface: the name without one is there for those who link. The
    // loader takes a name without a slash for one to search for.
    const std::string file = !path                                  ? PELTEXCTL_LIBRARY
                             : path->find('/') == std::string::npos ? "./" + *path
                                                                    : *path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the C library keeps the text per thread
        const char* const text = dlerror();
        throw Failure(kNoLibraryOrData,
                      fmt::format("cannot load the library: {}; --library FILE names another",
                                  text != nullptr ? text : "unknown error"));
    }
    Library library{};
    Resolve(handle, file, "startBackupSession", &library.start);
    Resolve(handle, file, "executeBackupTask", &library.execute);
    Resolve(handle, file, "finishBackupSession", &library.finish);
    return library;
}

}  // namespace peltexctl
