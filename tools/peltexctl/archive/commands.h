// The subcommands that look at archives: no session, no library, no root.
#pragma once

#include <string>

#include "archive/set.h"
#include "ui/events.h"

namespace peltexctl {

struct ArchiveRequest {
    std::string subcommand;  // list, verify or export
    std::string file;        // an archive, one slice, or a check file
    std::string out;         // of an export; "-" for standard output
};

// Returns the program's exit status. Throws Failure.
int RunArchive(const ArchiveRequest& request, EventWriter* events);

// Joins the slices of a set into one plain tar archive that every tar program reads, in constant
// memory; in export.cpp. `out` is "-" for standard output. A file of that name is replaced once the
// new one is whole; nobody can read it who could not read the slices and the file that was there.
// Throws Failure, and leaves nothing of the new one then. REQUIRES: the set has no fault.
void ExportSet(const ArchiveSet& set, const std::string& out);

}  // namespace peltexctl
