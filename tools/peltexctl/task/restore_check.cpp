// Tested by tests/peltexctl/test_archive_tasks.py.
#include "task/restore_check.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdint>
#include <map>

#include "archive/listing.h"
#include "archive/set.h"

namespace peltexctl {

namespace {

using namespace android::installd;

bool IsThere(const std::string& path, const ArchiveEntry& entry) {
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0) {
        return false;
    }
    if (entry.type == TYPE_DIRECTORY) {
        return S_ISDIR(info.st_mode);
    }
    return entry.type == TYPE_SYMLINK
               ? S_ISLNK(info.st_mode)
               : S_ISREG(info.st_mode) && static_cast<uint64_t>(info.st_size) == entry.size;
}

}  // namespace

std::string CompareRestored(const std::string& file, const std::string& directory) {
    const FindingSink ignore = [](const Finding&) {};
    std::string error;
    const auto set = ArchiveSet::Open(file, ignore, &error);
    if (!set) {
        return error;
    }
    // The last entry of a name is the one that stays.
    std::map<std::string, ArchiveEntry> entries;
    ListSet(*set, ignore, [&entries](const ArchiveEntry& entry) {
        if (entry.IsFile() || entry.type == TYPE_DIRECTORY || entry.type == TYPE_SYMLINK) {
            entries[entry.name] = entry;
        }
    });
    uint64_t missing = 0;
    std::string first;
    for (const auto& [name, entry] : entries) {
        const std::string path = fmt::format("{}/{}", directory, name);
        if (!IsThere(path, entry) && missing++ == 0) {
            first = path;
        }
    }
    return missing == 0 ? ""
                        : fmt::format("{}: is not there as {} holds it{}", first, file,
                                      missing > 1 ? fmt::format(", and {} more", missing - 1) : "");
}

}  // namespace peltexctl
