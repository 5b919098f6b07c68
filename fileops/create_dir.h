// Directories of the application's own.
#pragma once

#include <stdint.h>

namespace android::installd {

// Makes every missing directory of `path`, with `uid` as owner and group and kCreatedMode. Those
// that are there are left as they are. A path of more than 2047 bytes is cut silently. Returns 0,
// or -1 after logging why; errno tells it too, where a call has failed.
int createDir(const char* path, uint32_t uid);

}  // namespace android::installd
