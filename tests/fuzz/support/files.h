// Files and trees for the fuzz targets. What cannot be done ends the process.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace peltex_fuzz {

void makeDir(const std::string& path, mode_t mode = 0755);  // not its parents
void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644);
void makeLink(const std::string& target, const std::string& path);
std::string readFile(const std::string& path);  // empty where there is none

// In the order of the file system, without "." and "..".
std::vector<std::string> namesIn(const std::string& dir);

// Removes everything below `dir`, however deep, following no links; not `dir` itself.
void emptyDir(const std::string& dir);

// Links made by this process so far: the targets are linked with symlink() wrapped.
int linksMade();

}  // namespace peltex_fuzz
