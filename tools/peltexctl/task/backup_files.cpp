// Tested by tests/peltexctl/test_refusals.py.
#include "task/backup_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "archive/sums.h"
#include "ui/exit_code.h"

namespace peltexctl {

BackupFiles::BackupFiles(const std::string& directory, std::string base)
    : directory_(directory), base_(std::move(base)), fd_(OpenDirectory(directory)) {}

std::string BackupFiles::First(bool is_set) const {
    if (!fd_.isOpen()) {
        return "";
    }
    struct stat status = {};
    for (const std::string& name : {is_set ? base_ + ".txt" : base_, SumsName(base_)}) {
        if (fstatat(fd_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            return directory_ + "/" + name;
        }
    }
    const std::vector<std::string> slices = is_set ? Slices() : std::vector<std::string>();
    return slices.empty() ? "" : directory_ + "/" + slices[0];
}

void BackupFiles::Remove(bool is_set) const {
    std::vector<std::string> names = is_set ? Slices() : std::vector<std::string>();
    names.insert(names.begin(), {SumsName(base_), is_set ? base_ + ".txt" : base_});
    for (size_t i = 0; fd_.isOpen() && i < names.size(); i++) {
        Require(unlinkat(fd_.get(), names[i].c_str(), 0) == 0 || errno == ENOENT,
                "cannot be removed: " + directory_ + "/" + names[i]);
    }
}

std::vector<std::string> BackupFiles::Slices() const {
    std::vector<std::string> slices;
    const std::string start = base_ + ".";
    ForEachName(fd_, [&](const std::string& name) {
        if (name.size() > start.size() && name.compare(0, start.size(), start) == 0 &&
            name.find_first_not_of("0123456789", start.size()) == std::string::npos) {
            slices.push_back(name);
        }
    });
    return slices;
}

}  // namespace peltexctl
