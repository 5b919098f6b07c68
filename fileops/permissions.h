// Owner and mode of what the service creates.
#pragma once

#include <stdint.h>

namespace android::installd {

// Sets the mode of `path`, then its owner and group, following links. Returns 0, or -1 after
// logging which of the two failed; errno tells why.
int fixup_permissions_dir_file(const char* path, uint32_t owner, uint32_t group, uint32_t mode);

}  // namespace android::installd
