// The subcommands that look at archives: no session, no library, no root.
#pragma once

#include <string>

#include "ui/events.h"

namespace peltexctl {

struct ArchiveRequest {
    std::string subcommand;  // list, verify or export
    std::string file;        // an archive, one slice, or a check file
    std::string out;         // of an export; "-" for standard output
};

// Returns the program's exit status. Throws Failure.
int RunArchive(const ArchiveRequest& request, EventWriter* events);

}  // namespace peltexctl
