// Tested by tests/peltexctl/test_refusals.py.
#include "task/backup_files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

namespace peltexctl {

BackupFiles::BackupFiles(const std::string& directory, std::string base)
    : directory_(directory), base_(std::move(base)), fd_(OpenDirectory(directory)) {}

std::string BackupFiles::First(bool is_set) const {
    std::string first;
    struct stat status = {};
    if (!fd_.isOpen()) {
        return "";
    }
    if (!is_set) {
        return fstatat(fd_.get(), base_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0
                   ? directory_ + "/" + base_
                   : "";
    }
    ForEachName(fd_, [&](const char* name) {
        if (base_ + ".txt" == name || (first.empty() && IsSlice(name))) {
            first = directory_ + "/" + name;
        }
    });
    return first;
}

std::string BackupFiles::Remove(bool is_set) const {
    if (!fd_.isOpen()) {
        return "";
    }
    std::vector<std::string> names = {base_ + ".sha256", is_set ? base_ + ".txt" : base_};
    if (is_set) {
        ForEachName(fd_, [&](const char* name) {
            if (IsSlice(name)) {
                names.emplace_back(name);
            }
        });
    }
    for (const std::string& name : names) {
        if (unlinkat(fd_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
            return fmt::format("{}/{}: cannot be removed: {}", directory_, name,
                               std::generic_category().message(errno));
        }
    }
    return "";
}

bool BackupFiles::IsSlice(std::string_view name) const {
    if (name.size() <= base_.size() + 1 || name.substr(0, base_.size()) != base_ ||
        name[base_.size()] != '.') {
        return false;
    }
    return name.find_first_not_of("0123456789", base_.size() + 1) == std::string_view::npos;
}

}  // namespace peltexctl
