// The check file of a split archive: a text line per slice, from which a restore learns the slices,
// their order and their sizes. "NAME.INDEX|SIZE\n", NAME.INDEX being a file beside the check file.
#pragma once

#include <utils/Vector.h>

#include <string>

namespace android::installd {

// The decimal text of a number.
std::string UdtoString(unsigned int value);

// The line for slice `index`, named by the last component of `basePath`. Empty for a size of 0.
std::string HandleSplitInfo(std::string basePath, unsigned long long size, unsigned int index);

// Writes the check file of the slices `basePath`.0, .1, ... with these sizes to `path`. On failure
// what has been written stays.
bool writeCheckFile(const std::string& path, const std::string& basePath,
                    const Vector<long>& sizes);

// Adds the paths of the listed slices to `slices`, each of which has to be there and of its size,
// and counts the lines. False at the first that is not, or when the file cannot be read.
bool HandleCheckFile(const char* checkFilePath, Vector<std::string>& slices, int& count);

// The same for one line of a check file in `checkDir`. Sizes may also be hexadecimal or octal.
bool CheckSliceTar(const char* line, const char* checkDir, Vector<std::string>& slices);

// The text before the last '/', all of it where there is none: the directory of a check file.
std::string parentOf(const char* path);

}  // namespace android::installd
