// Tested by tests/peltexctl/test_restores.py.
#include "task/set_links.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "archive/sums.h"

namespace peltexctl {

namespace {

constexpr std::string_view kPrefix = ".peltexctl-restore-";

std::string Reason(const std::string& path, int error) {
    return fmt::format("{}: {}", path, std::generic_category().message(error));
}

// Removes the directory `name` of `parent` with what SetLinks makes in one: links and a check file.
void RemoveLinks(const UniqueFd& parent, const UniqueFd& directory, const std::string& name) {
    ForEachName(directory, [&](const char* inside) {
        struct stat status = {};
        const std::string_view text = inside;
        if (fstatat(directory.get(), inside, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            (S_ISLNK(status.st_mode) ||
             (S_ISREG(status.st_mode) && text.substr(text.rfind('.') + 1) == "txt"))) {
            unlinkat(directory.get(), inside, 0);
        }
    });
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

SetLinks::~SetLinks() {
    if (!path_.empty()) {
        RemoveLinks(parent_, fd_, peltexctl::NameOf(path_));
    }
}

std::string SetLinks::RemoveLeftovers() const {
    const UniqueFd parent = OpenDirectory(directory_);
    std::vector<std::string> names;
    if (parent.isOpen()) {
        ForEachName(parent, [&](const char* name) {
            if (std::string_view(name).substr(0, kPrefix.size()) == kPrefix) {
                names.emplace_back(name);
            }
        });
    }
    std::string told;
    for (const std::string& name : names) {
        const UniqueFd directory = OpenDirectoryAt(parent, name);
        if (IsLeftover(directory)) {
            RemoveLinks(parent, directory, name);
            told += fmt::format("{}{}/{}", told.empty() ? "" : ", ", directory_, name);
        }
    }
    return told;
}

std::string SetLinks::Make(const std::string& other) {
    std::string error = MakeIn(directory_);
    if (!error.empty() && errno == EROFS) {
        error = MakeIn(other);
    }
    return error;
}

std::string SetLinks::MakeIn(const std::string& parent) {
    std::string path = fmt::format("{}/{}XXXXXX", parent, kPrefix);
    if (mkdtemp(path.data()) == nullptr) {
        return Reason(parent, errno) + "; a restore needs to make a directory there";
    }
    parent_ = OpenDirectory(parent);
    fd_ = OpenDirectoryAt(parent_, peltexctl::NameOf(path));
    if (!fd_.isOpen() || flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
        return Reason(path, errno);
    }
    path_ = path;
    return CopyCheckFile() && LinkSlices() ? "" : Reason(path, errno);
}

// As it was read: the library takes no other numbers out of it.
bool SetLinks::CopyCheckFile() const {
    const UniqueFd file(openat(fd_.get(), set_.name().c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    std::string lines;
    for (size_t i = 0; i < set_.size(); i++) {
        lines += fmt::format("{}|{}\n", set_.NameOf(i), set_.SizeOf(i));
        if (lines.size() > 4096 || i + 1 == set_.size()) {
            if (write(file.get(), lines.data(), lines.size()) !=
                static_cast<ssize_t>(lines.size())) {
                return false;
            }
            lines.clear();
        }
    }
    return file.isOpen();
}

bool SetLinks::LinkSlices() const {
    for (size_t i = 0; i < set_.size(); i++) {
        const std::string name = set_.NameOf(i);
        if (symlinkat((directory_ + "/" + name).c_str(), fd_.get(), name.c_str()) != 0) {
            return false;
        }
    }
    return true;
}

uint64_t SetLinks::BytesRead() {
    struct stat status = {};
    while (done_ < set_.size() && fstatat(fd_.get(), set_.NameOf(done_).c_str(), &status,
                                          AT_SYMLINK_NOFOLLOW) != 0) {
        done_bytes_ += set_.SizeOf(done_++);
    }
    return done_bytes_ +
           (done_ < set_.size() ? ReadPosition(directory_ + "/" + set_.NameOf(done_)) : 0);
}

uint64_t ReadPosition(const std::string& path) {
    struct stat file = {};
    const UniqueFd list = OpenDirectory("/proc/self/fdinfo");
    uint64_t position = 0;
    if (!list.isOpen() || stat(path.c_str(), &file) != 0) {
        return 0;
    }
    ForEachName(list, [&](const char* name) {
        struct stat status = {};
        std::string key;
        uint64_t value = 0;
        if (fstat(std::atoi(name), &status) == 0 && status.st_ino == file.st_ino &&
            status.st_dev == file.st_dev &&
            std::ifstream(std::string("/proc/self/fdinfo/") + name) >> key >> value) {
            position = std::max(position, value);
        }
    });
    return position;
}

std::string RemoveSet(const ArchiveSet& set) {
    const auto remove = [&](const std::string& name) {
        return unlinkat(set.directory(), name.c_str(), 0) == 0 || errno == ENOENT;
    };
    bool is_removed = remove(SumsName(set.name())) && remove(set.name());
    for (size_t i = 0; i < set.size(); i++) {
        is_removed = remove(set.NameOf(i)) && is_removed;
    }
    return is_removed ? "" : Reason(set.path(), errno) + "; not all of the set could be removed";
}

}  // namespace peltexctl
