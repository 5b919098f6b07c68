// One entry of an archive as its header, and the long-name records before it, describe it.
#pragma once

#include <stdint.h>

#include "tar/untar_file.h"

namespace android::installd {

struct UnTarFile::Entry {
    uint32_t mode = 0;
    unsigned int owner = 0;  // as mapped to the target application, like `group`
    unsigned int group = 0;
    uint64_t size = 0;         // of the data behind the header, in bytes
    int64_t dataPosition = 0;  // of that data in the archive
    char typeflag = 0;
    const char* name = "";  // the long name where one came before, and so below
    const char* linkName = "";
    bool hasLongName = false;
    bool hasLongLink = false;
};

}  // namespace android::installd
