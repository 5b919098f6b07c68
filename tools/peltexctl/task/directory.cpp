// Tested by tests/client/peltexctl.md.
#include "task/directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "ui/ending.h"

namespace peltexctl {

namespace fs = std::filesystem;

std::optional<struct stat> StatOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

std::optional<FileId> IdOf(const std::string& path) {
    const std::optional<struct stat> status = StatOf(path);
    return status ? std::optional(FileId(status->st_dev, status->st_ino)) : std::nullopt;
}

std::string ParentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

std::string NameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string NearestThere(std::string path) {
    while (path.size() > 1 && !StatOf(path)) {
        path = ParentOf(path);
    }
    return path;
}

bool LiesIn(const std::string& inner, const FileId& outer) {
    std::error_code failure;
    fs::path path = fs::weakly_canonical(inner, failure);
    while (IdOf(path) != outer && path.has_relative_path()) {
        path = path.parent_path();
    }
    return IdOf(path) == outer;
}

UniqueFd OpenDirectory(const std::string& path) {
    return UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd OpenDirectoryAt(int parent, const char* name) {
    return UniqueFd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

fs::directory_iterator EntriesOf(const UniqueFd& opened) {
    std::error_code failure;
    return fs::directory_iterator(fmt::format("/proc/self/fd/{}", opened.get()), failure);
}

void RemoveFiles(int directory, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        Require(unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT,
                "cannot be removed: " + name);
    }
}

void MadeDirectory::Make(const std::string& path, uid_t uid) {
    constexpr mode_t kMode = 0777;  // less the umask
    const std::string whole = fs::absolute(path);
    const std::string there = NearestThere(whole);
    fd_ = OpenDirectory(there);
    for (const fs::path& name : fs::path(whole.substr(there.size())).relative_path()) {
        Require(fd_.isOpen(), path);
        const bool is_new = mkdirat(fd_.get(), name.c_str(), kMode) == 0;
        UniqueFd next = OpenDirectoryAt(fd_.get(), name.c_str());
        if (is_new) {
            made_.emplace_back(std::move(fd_), name);
        }
        fd_ = std::move(next);
    }
    const bool gives = !made_.empty() && uid != 0;
    Require(fd_.isOpen() && (!gives || fchown(fd_.get(), uid, static_cast<gid_t>(uid)) == 0), path);
}

MadeDirectory::~MadeDirectory() {
    for (; !made_.empty(); made_.pop_back()) {
        unlinkat(made_.back().first.get(), made_.back().second.c_str(), AT_REMOVEDIR);
    }
}

}  // namespace peltexctl
