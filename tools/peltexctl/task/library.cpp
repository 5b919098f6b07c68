#include "task/library.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <filesystem>
#include <system_error>

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

// With the version of its interface: the name without one is there for those who link.
constexpr const char* kLibraryName = PELTEXCTL_LIBRARY;

std::string FindLibrary(const std::optional<std::string>& path) {
    if (path) {
        // The loader takes a name without a slash for one to search for.
        return path->find('/') == std::string::npos ? "./" + *path : *path;
    }
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).parent_path() / kLibraryName;
    return !error && fs::exists(beside, error) ? beside.native() : kLibraryName;
}

std::string LoaderError() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the C library keeps the text per thread
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error of the loader";
}

template <typename Function>
bool Resolve(void* handle, const std::string& path, const char* name, Function** function,
             std::string* error) {
    void* symbol = dlsym(handle, name);
    if (symbol == nullptr) {
        *error = fmt::format("{}: has no function {}, so it is not the library", path, name);
        return false;
    }
    *function = reinterpret_cast<Function*>(symbol);
    return true;
}

}  // namespace

std::optional<Library> LoadLibrary(const std::optional<std::string>& path, std::string* error) {
    const std::string file = FindLibrary(path);
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        *error =
            fmt::format("cannot load the library: {}; --library FILE names another", LoaderError());
        return std::nullopt;
    }
    Library library{};
    if (!Resolve(handle, file, "startBackupSession", &library.start, error) ||
        !Resolve(handle, file, "executeBackupTask", &library.execute, error) ||
        !Resolve(handle, file, "finishBackupSession", &library.finish, error)) {
        return std::nullopt;
    }
    return library;
}

}  // namespace peltexctl
