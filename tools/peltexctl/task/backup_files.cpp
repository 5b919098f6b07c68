// Tested by tests/peltexctl/test_refusals.py.
#include "task/backup_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "archive/sums.h"
#include "ui/exit_code.h"

namespace peltexctl {

std::vector<std::string> BackupFiles(const UniqueFd& directory, const std::string& base,
                                     bool is_set) {
    std::vector<std::string> names;
    const std::string start = base + ".";
    ForEachName(directory, [&](const std::string& name) {
        const bool is_slice =
            name.size() > start.size() && name.rfind(start, 0) == 0 &&
            name.find_first_not_of("0123456789", start.size()) == std::string::npos;
        if (name == SumsName(base) || (is_set ? is_slice || name == start + "txt" : name == base)) {
            names.push_back(name);
        }
    });
    // "txt" and "sha256" are behind the numbers of slices, the archive is before its sums.
    std::sort(names.begin(), names.end());
    if (is_set) {
        std::reverse(names.begin(), names.end());
    }
    return names;
}

void RemoveFiles(int directory, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        Require(unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT,
                "cannot be removed: " + name);
    }
}

}  // namespace peltexctl
