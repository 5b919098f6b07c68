// Tested by tests/client/peltexctl.md.
#include "task/data_mount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "task/directory.h"
#include "task/tree_walk.h"
#include "ui/exit_code.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kData = "/data";

void Check(bool is_done, const std::string& action) {
    Require(is_done, "--data: cannot " + action, kNoLibraryOrData);
}

// The path names what is open even when a later mount covers its own.
void Bind(const UniqueFd& source, const std::string& name, const std::string& target) {
    const std::string path = fmt::format("/proc/self/fd/{}", source.get());
    Check(mount(path.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          fmt::format("mount {} on {} (by /proc)", name, target));
}

void RecreateEntry(const UniqueFd& entry, const std::string& name, const std::string& target) {
    struct stat status = {};
    Check(fstat(entry.get(), &status) == 0, "look at " + name);
    if (S_ISLNK(status.st_mode)) {
        LinkBuffer buffer;
        const std::string link(ReadLink(entry, "", buffer));
        Check(symlink(link.c_str(), target.c_str()) == 0, "make the link " + target);
        return;
    }
    Check((S_ISDIR(status.st_mode) ? mkdir(target.c_str(), 0755)
                                   : mknod(target.c_str(), S_IFREG | 0644, 0)) == 0,
          "make " + target);
    Bind(entry, name, target);
}

// Makes a root that holds the entries of / and an empty /data. It is mounted on `directory`, the
// one place that is certainly ours; being unbindable, it is no part of the copies of what lies
// around it, so that `directory` shows its own content inside. Everything in / is opened before,
// since the mount may cover some of it. What is called /data there, such as a link that leads
// nowhere, makes room for the new root's own.
void BuildRoot(const std::string& directory) {
    std::vector<std::pair<std::string, UniqueFd>> entries;
    const auto open_entry = [&entries](const std::string& name) {
        const std::string path = "/" + name;
        if (path != kData) {
            entries.emplace_back(path, open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            Check(entries.back().second.isOpen(), "open " + path);
        }
    };
    Check(ForEachName(OpenDirectory("/"), open_entry), "list /");
    Check(mount("tmpfs", directory.c_str(), "tmpfs", 0, "mode=0755") == 0 &&
              mount(nullptr, directory.c_str(), nullptr, MS_UNBINDABLE, nullptr) == 0,
          "mount a root on " + directory);
    for (const auto& [path, entry] : entries) {
        RecreateEntry(entry, path, directory + path);
    }
    Check(mkdir((directory + kData).c_str(), 0771) == 0, "make " + directory + kData);
}

std::string ResolveDirectory(const std::string& directory) {
    std::error_code failure;
    std::error_code not_made;
    fs::create_directories(directory, not_made);
    // Of a file in the way create_directories tells this or that.
    const fs::path real = fs::canonical(directory, failure);
    if (failure && not_made) {
        failure = not_made;
    } else if (!failure && !fs::is_directory(real, failure)) {
        failure = std::make_error_code(std::errc::not_a_directory);
    }
    if (failure || real == "/") {
        throw Failure(kNoLibraryOrData,
                      failure ? fmt::format("--data \"{}\": {}; a directory is wanted", directory,
                                            failure.message())
                              : "--data: / cannot be mounted inside itself");
    }
    return real;
}

}  // namespace

void MountData(const std::string& directory) {
    if (geteuid() != 0) {
        throw Failure(kNoLibraryOrData,
                      "--data needs root, to make a mount for this process; use sudo");
    }
    Check(unshare(CLONE_NEWNS) == 0 &&
              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
          "make a mount namespace");
    const std::string root = ResolveDirectory(directory);
    const UniqueFd source(open(root.c_str(), O_PATH | O_CLOEXEC));
    std::error_code ignored;
    if (fs::is_directory(kData, ignored)) {
        return Bind(source, root, kData);
    }
    const std::string working = fs::current_path(ignored);
    BuildRoot(root);
    Bind(source, root, root + kData);
    Check(chdir(root.c_str()) == 0 && chroot(".") == 0 && chdir(working.c_str()) == 0,
          "enter " + root);
}

}  // namespace peltexctl
