// Tested by tests/peltexctl/test_command_line.py.
#include "task/data_mount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "ui/text.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kData = "/data";

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    bool valid() const { return fd_ >= 0; }
    // A path that names what is open even when a later mount covers its own path.
    std::string path() const { return fmt::format("/proc/self/fd/{}", fd_); }

  private:
    int fd_;
};

struct RootEntry {
    std::string name;
    mode_t mode;
    Descriptor opened;
};

// To be called right after the failing call.
bool Fail(std::string* error, const char* action, const std::string& path) {
    const int number = errno;
    *error = fmt::format("--data: cannot {} {}: {}", action, path, ErrorText(number));
    return false;
}

bool Bind(const Descriptor& source, const std::string& name, const std::string& target,
          std::string* error) {
    if (mount(source.path().c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return Fail(error, "mount", fmt::format("{} on {}", name, target));
    }
    return true;
}

// Everything in / is opened before the new root is mounted, since that may cover some of it. What
// is called /data there, such as a link that leads nowhere, makes room for the new root's own.
bool OpenRootEntries(std::vector<RootEntry>* entries, std::string* error) {
    std::error_code failure;
    for (fs::directory_iterator it("/", failure), end; !failure && it != end;
         it.increment(failure)) {
        const fs::path& path = it->path();
        if (path == kData) {
            continue;
        }
        Descriptor opened(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat info = {};
        if (!opened.valid() || lstat(path.c_str(), &info) != 0) {
            return Fail(error, "open", path.native());
        }
        entries->push_back({path.filename().native(), info.st_mode, std::move(opened)});
    }
    if (failure) {
        *error = fmt::format("--data: cannot list /: {}", failure.message());
        return false;
    }
    return true;
}

bool CopySymlink(const RootEntry& entry, const std::string& target, std::string* error) {
    std::error_code failure;
    const fs::path link = fs::read_symlink("/" + entry.name, failure);
    if (failure || symlink(link.c_str(), target.c_str()) != 0) {
        return Fail(error, "make the link", target);
    }
    return true;
}

bool RecreateEntry(const RootEntry& entry, const std::string& target, std::string* error) {
    if (S_ISLNK(entry.mode)) {
        return CopySymlink(entry, target, error);
    }
    if (S_ISDIR(entry.mode)) {
        if (mkdir(target.c_str(), 0755) != 0) {
            return Fail(error, "make", target);
        }
    } else if (mknod(target.c_str(), S_IFREG | 0644, 0) != 0) {
        return Fail(error, "make", target);
    }
    return Bind(entry.opened, "/" + entry.name, target, error);
}

// Makes a root that holds the entries of / and an empty /data. It is mounted on `directory`, the
// one place that is certainly ours; being unbindable, it is no part of the copies of what lies
// around it, so that `directory` shows its own content inside.
bool BuildRoot(const std::string& directory, std::string* error) {
    std::vector<RootEntry> entries;
    if (!OpenRootEntries(&entries, error)) {
        return false;
    }
    if (mount("tmpfs", directory.c_str(), "tmpfs", 0, "mode=0755") != 0 ||
        mount(nullptr, directory.c_str(), nullptr, MS_UNBINDABLE, nullptr) != 0) {
        return Fail(error, "mount a root on", directory);
    }
    for (const RootEntry& entry : entries) {
        if (!RecreateEntry(entry, directory + "/" + entry.name, error)) {
            return false;
        }
    }
    const std::string data = directory + kData;
    if (mkdir(data.c_str(), 0771) != 0) {
        return Fail(error, "make", data);
    }
    return true;
}

bool EnterRoot(const std::string& root, std::string* error) {
    std::error_code failure;
    const fs::path working = fs::current_path(failure);
    if (failure) {
        *error = fmt::format("--data: no working directory: {}", failure.message());
        return false;
    }
    if (chdir(root.c_str()) != 0 || chroot(".") != 0) {
        return Fail(error, "enter", root);
    }
    if (chdir(working.c_str()) != 0) {
        return Fail(error, "go back to", working.native());
    }
    return true;
}

bool EnterNamespace(std::string* error) {
    if (geteuid() != 0) {
        *error = "--data needs root, to make a mount for this process; use sudo";
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0) {
        return Fail(error, "make", "a mount namespace");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return Fail(error, "make private", "/");
    }
    return true;
}

bool ResolveDirectory(const std::string& directory, std::string* resolved, std::string* error) {
    std::error_code failure;
    fs::create_directories(directory, failure);
    // create_directories speaks of a file in the way as of a success, in some cases.
    const fs::path real = failure ? fs::path() : fs::canonical(directory, failure);
    if (!failure && !fs::is_directory(real, failure)) {
        failure = std::make_error_code(std::errc::not_a_directory);
    }
    if (failure) {
        *error =
            fmt::format("--data \"{}\": {}; a directory is wanted", directory, failure.message());
        return false;
    }
    if (real == "/") {
        *error = "--data: / cannot be mounted inside itself";
        return false;
    }
    *resolved = real.native();
    return true;
}

}  // namespace

bool MountData(const std::string& directory, std::string* error) {
    std::string resolved;
    if (!EnterNamespace(error) || !ResolveDirectory(directory, &resolved, error)) {
        return false;
    }
    const Descriptor source(open(resolved.c_str(), O_PATH | O_CLOEXEC));
    if (!source.valid()) {
        return Fail(error, "open", resolved);
    }
    std::error_code ignored;
    if (fs::is_directory(kData, ignored)) {
        return Bind(source, resolved, kData, error);
    }
    return BuildRoot(resolved, error) && Bind(source, resolved, resolved + kData, error) &&
           EnterRoot(resolved, error);
}

}  // namespace peltexctl
