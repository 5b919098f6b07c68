#include "tests/fuzz/support/sentinel.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"

namespace peltex_fuzz {

Sentinel::Sentinel(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        mEntries.push_back(lookAt(path));
    }
}

Sentinel::Entry Sentinel::lookAt(const std::string& path) {
    struct stat status = {};
    const bool isThere = lstat(path.c_str(), &status) == 0;
    return {path,
            isThere,
            status.st_mode & S_IFMT,
            status.st_mode & 07777,
            status.st_uid,
            status.st_gid,
            status.st_mtim,
            S_ISREG(status.st_mode) ? readFile(path) : ""};
}

bool Sentinel::hasSameOwnerAndMode(const Entry& a, const Entry& b) {
    return a.mode == b.mode && a.owner == b.owner && a.group == b.group;
}

bool Sentinel::isSameOtherwise(const Entry& a, const Entry& b) {
    return a.isThere == b.isThere && a.type == b.type && a.modified.tv_sec == b.modified.tv_sec &&
           a.modified.tv_nsec == b.modified.tv_nsec && a.content == b.content;
}

void Sentinel::check(Allowance allowance) const {
    for (const Entry& entry : mEntries) {
        const Entry now = lookAt(entry.path);
        if (!isSameOtherwise(entry, now)) {
            fail("%s was changed", entry.path.c_str());
        }
        if (allowance == kNothing && !hasSameOwnerAndMode(entry, now)) {
            fail("%s got another owner or mode", entry.path.c_str());
        }
    }
}

void Sentinel::repair() const {
    for (const Entry& entry : mEntries) {
        if (chown(entry.path.c_str(), entry.owner, entry.group) != 0 ||
            chmod(entry.path.c_str(), entry.mode) != 0) {
            fail("%s cannot be repaired", entry.path.c_str());
        }
    }
}

}  // namespace peltex_fuzz
