// The subcommands that look at archives: no session, no library, no root.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "task/tree_counts.h"

namespace peltexctl {

struct ArchiveRequest {
    std::string file;  // an archive, one slice, or a check file
    std::string out;   // of an export; "-" for standard output
};

// Each returns the program's exit status.
int RunList(const ArchiveRequest& request, bool json);
int RunVerify(const ArchiveRequest& request, bool json);
int RunExport(const ArchiveRequest& request, bool json);

// Nanoseconds since the epoch, as a file system would note a change that is made now.
int64_t FileSystemNow();

// Verifies what a backup has just written against its source directory, and prints what it finds as
// RunVerify() does. `packing_began` is when the backup was started, in nanoseconds since the epoch
// by the clock of the file systems (FileSystemNow()). `counts` gets what an archive holds that is
// whole.
int RunVerifyBackup(const std::string& file, const std::string& source_directory,
                    int64_t packing_began, bool json, std::optional<TreeCounts>* counts);

// What the archive or set of slices `file` holds; nothing when there is something wrong with it.
std::optional<TreeCounts> CountArchive(const std::string& file);

// The paths of the slices that a check file lists; none for another file.
std::vector<std::string> ListSlices(const std::string& check_file);

}  // namespace peltexctl
