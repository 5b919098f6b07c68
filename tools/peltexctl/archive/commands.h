// The subcommands that look at archives: no session, no library, no root.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "archive/set.h"
#include "task/tree_counts.h"

namespace peltexctl {

struct ArchiveRequest {
    std::string file;  // an archive, one slice, or a check file
    std::string out;   // of an export; "-" for standard output
    bool quiet = false;
};

// Each returns the program's exit status.
int RunList(const ArchiveRequest& request, bool json);
int RunVerify(const ArchiveRequest& request, bool json);
int RunExport(const ArchiveRequest& request, bool json);

// A finding in one line, and as one JSON object.
std::string FindingAsText(const Finding& finding);
std::string FindingAsJson(const Finding& finding);

int64_t FileSystemNow();
int RunVerifyBackup(const std::string& file, const std::string& source_directory,
                    int64_t packing_began, bool json, std::optional<TreeCounts>* counts);
std::optional<TreeCounts> CountArchive(const std::string& file);
std::vector<std::string> ListSlices(const std::string& check_file);

}  // namespace peltexctl
