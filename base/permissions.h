// Owner and mode of what the service creates.
#pragma once

#include <stdint.h>

namespace android::installd {

// Mode of every directory, copied file and attribute file that the service creates.
constexpr uint32_t kCreatedMode = 0771;

// Of archives, slices and check files.
constexpr uint32_t kArchiveMode = 0660;

// Sets the mode of `path`, then its owner and group, following links. Returns 0, or -1 after
// logging which of the two failed; errno tells why, but for an empty path.
int fixup_permissions_dir_file(const char* path, uint32_t owner, uint32_t group, uint32_t mode);

}  // namespace android::installd
