// Tested by tests/client/peltexctl.md.
#include "task/set_links.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "archive/sums.h"
#include "ui/ending.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = ".peltexctl-restore-";

// Removes the directory `name` of `parent` with what SetLinks makes in one: links and a check file.
void RemoveLinks(const UniqueFd& parent, const std::string& name, const UniqueFd& directory) {
    for (const fs::directory_entry& entry : EntriesOf(directory)) {
        if (entry.is_symlink() || entry.path().extension() == ".txt") {
            unlinkat(directory.get(), entry.path().filename().c_str(), 0);
        }
    }
    unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR);
}

// Whether a directory is one of ours that no running program holds.
bool IsLeftover(const UniqueFd& directory) {
    struct stat status = {};
    return directory.isOpen() && fstat(directory.get(), &status) == 0 &&
           status.st_uid == geteuid() && (status.st_mode & 0777) == 0700 &&
           flock(directory.get(), LOCK_EX | LOCK_NB) == 0;
}

}  // namespace

std::string RemoveLeftLinks(const std::string& path) {
    const UniqueFd parent = OpenDirectory(path);
    std::string told;
    for (const fs::directory_entry& entry : EntriesOf(parent)) {
        const std::string name = entry.path().filename();
        const bool is_named = name.rfind(kPrefix, 0) == 0;
        const UniqueFd directory =
            is_named ? OpenDirectoryAt(parent.get(), name.c_str()) : UniqueFd();
        if (IsLeftover(directory)) {
            RemoveLinks(parent, name, directory);
            told += fmt::format("{}{}/{}", told.empty() ? "" : ", ", path, name);
        }
    }
    return told;
}

SetLinks::~SetLinks() {
    if (!path_.empty()) {
        RemoveLinks(parent_, NameOf(path_), fd_);
    }
}

void SetLinks::Make(const ArchiveSet& set, const std::string& other) {
    const std::string directory = ParentOf(set.path());
    struct statvfs system = {};
    const bool is_read_only =
        statvfs(directory.c_str(), &system) == 0 && (system.f_flag & ST_RDONLY) != 0;
    std::string path = fmt::format("{}/{}XXXXXX", is_read_only ? other : directory, kPrefix);
    Require(mkdtemp(path.data()) != nullptr, "a restore makes a directory beside the set: " + path);
    path_ = path;
    parent_ = OpenDirectory(ParentOf(path));
    fd_ = OpenDirectoryAt(parent_.get(), NameOf(path).c_str());
    Require(fd_.isOpen() && flock(fd_.get(), LOCK_EX | LOCK_NB) == 0, path);
    // As it was read: the library takes no other numbers out of it.
    const UniqueFd file(
        openat(fd_.get(), kCheckFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    for (size_t i = 0; i < set.size(); i++) {
        const std::string name = set.NameOf(i);
        Require(dprintf(file.get(), "%s|%ju\n", name.c_str(), uintmax_t{set.SizeOf(i)}) > 0 &&
                    symlinkat(fmt::format("{}/{}", directory, name).c_str(), fd_.get(),
                              name.c_str()) == 0,
                fmt::format("{}/{}", path, name));
    }
}

void RemoveSet(const ArchiveSet& set) {
    RemoveFiles(set.directory(), {SumsName(set.name()), set.name()});
    for (size_t i = 0; i < set.size(); i++) {
        RemoveFiles(set.directory(), {set.NameOf(i)});
    }
}

}  // namespace peltexctl
