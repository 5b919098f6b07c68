// A directory of the caller's choice as this process's /data.
//
// Call it before any thread exists: a mount namespace belongs to the thread that left the old one.
#pragma once

#include <string>

namespace peltexctl {

// Moves this process into a private mount namespace in which `directory` (created where missing)
// is mounted on /data. Where the host has no /data, the process also gets a root of its own that
// holds every entry of the old one and /data besides. The working directory stays. Throws Failure;
// the process may then be half-way and should end.
void MountData(const std::string& directory);

}  // namespace peltexctl
