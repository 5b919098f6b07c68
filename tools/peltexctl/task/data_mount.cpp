// Tested by tests/client/peltexctl.md.
#include "task/data_mount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>
#include <vector>

#include "task/directory.h"
#include "ui/ending.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kData = "/data";

void Check(bool is_done, const std::string& action) {
    Require(is_done, "--data: cannot " + action, kNoLibraryOrData);
}

// The path names what is open even when a later mount covers its own.
void Bind(const UniqueFd& source, const std::string& target) {
    const std::string path = fmt::format("/proc/self/fd/{}", source.get());
    Check(mount(path.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          "mount anything on " + target + " (by /proc)");
}

// Makes a root that holds the entries of / and an empty /data. It is mounted on `directory`, the
// one place that is certainly ours; being unbindable, it is no part of the copies of what lies
// around it, so that `directory` shows its own content inside. Everything in / is opened before,
// since the mount may cover some of it. What is called /data there, such as a link that leads
// nowhere, makes room for the new root's own.
void BuildRoot(const std::string& directory) {
    std::vector<std::pair<fs::path, UniqueFd>> entries;
    for (const fs::path& path : fs::directory_iterator("/")) {
        if (path != kData) {
            entries.emplace_back(path, open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            Check(entries.back().second.isOpen(), "open " + path.string());
        }
    }
    Check(mount("tmpfs", directory.c_str(), "tmpfs", 0, "mode=0755") == 0 &&
              mount(nullptr, directory.c_str(), nullptr, MS_UNBINDABLE, nullptr) == 0,
          "mount a root on " + directory);
    for (const auto& [path, entry] : entries) {
        const std::string target = directory + path.string();
        if (fs::is_symlink(path)) {
            fs::copy_symlink(path, target);
        } else {
            Check(fs::is_directory(path) ? fs::create_directory(target)
                                         : std::ofstream(target).is_open(),
                  "make " + target);
            Bind(entry, target);
        }
    }
    fs::create_directory(directory + kData);
}

void Mount(const std::string& directory) {
    Check(unshare(CLONE_NEWNS) == 0 &&
              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
          "make a mount namespace");
    std::error_code not_made;
    fs::create_directories(directory, not_made);
    const UniqueFd source(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    Ensure(
        source.isOpen(),
        fmt::format("--data \"{}\": {}; a directory is wanted", directory,
                    errno == ENOENT ? not_made.message() : std::generic_category().message(errno)),
        kNoLibraryOrData);
    const std::string root = fs::canonical(directory);
    Ensure(root != "/", "--data: / cannot be mounted inside itself", kNoLibraryOrData);
    if (fs::is_directory(kData, not_made)) {
        return Bind(source, kData);
    }
    const fs::path working = fs::current_path();
    BuildRoot(root);
    Bind(source, root + kData);
    Check(chdir(root.c_str()) == 0 && chroot(".") == 0 && chdir(working.c_str()) == 0,
          "enter " + root);
}

}  // namespace

void MountData(const std::string& directory) {
    Ensure(geteuid() == 0, "--data needs root, to make a mount for this process; use sudo",
           kNoLibraryOrData);
    try {
        Mount(directory);
    } catch (const fs::filesystem_error& failure) {
        throw Failure(kNoLibraryOrData, std::string("--data: ") + failure.what());
    }
}

}  // namespace peltexctl
