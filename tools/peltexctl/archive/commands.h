// The subcommands that look at archives: no session, no library, no root.
#pragma once

#include <string>

namespace peltexctl {

struct ArchiveRequest {
    std::string subcommand;  // list, verify or export
    std::string file;        // an archive, one slice, or a check file
    std::string out;         // of an export; "-" for standard output
    bool quiet = false;
    bool json = false;
};

// Returns the program's exit status.
int RunArchive(const ArchiveRequest& request);

}  // namespace peltexctl
