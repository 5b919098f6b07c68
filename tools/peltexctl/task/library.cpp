// Tested by tests/client/peltexctl.md.
#include "task/library.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "ui/exit_code.h"

namespace peltexctl {

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
    const auto find = [&](const char* name) {
        void* const function = dlsym(handle, name);
        Ensure(function != nullptr,
               fmt::format("{}: has no function {}, so it is not the library", file, name),
               kNoLibraryOrData);
        return function;
    };
    return {reinterpret_cast<decltype(Library::start)>(find("startBackupSession")),
            reinterpret_cast<decltype(Library::execute)>(find("executeBackupTask")),
            reinterpret_cast<decltype(Library::finish)>(find("finishBackupSession"))};
}

}  // namespace peltexctl
