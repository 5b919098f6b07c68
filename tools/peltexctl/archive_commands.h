// The subcommands that look at archives: no session, no library, no root.
#pragma once

#include <ctime>
#include <string>

namespace peltexctl {

struct ArchiveRequest {
    std::string file;  // an archive, one slice, or a check file
    std::string out;   // of an export; "-" for standard output
};

// Each returns the program's exit status.
int RunList(const ArchiveRequest& request, bool json);
int RunVerify(const ArchiveRequest& request, bool json);
int RunExport(const ArchiveRequest& request, bool json);

// Verifies what a backup has just written against its source directory, and prints what it finds as
// RunVerify() does. `packing_began` is when the backup was started.
int RunVerifyBackup(const std::string& file, const std::string& source_directory,
                    time_t packing_began, bool json);

}  // namespace peltexctl
