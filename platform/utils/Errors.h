// Result codes of the platform's native services: 0 is success, everything else is negative.

#pragma once

#include <errno.h>
#include <stdint.h>

namespace android {

using status_t = int32_t;

enum : status_t {
    OK = 0,

    UNKNOWN_ERROR = INT32_MIN,

    INVALID_OPERATION = -ENOSYS,
    BAD_VALUE = -EINVAL,
    NAME_NOT_FOUND = -ENOENT,
    DEAD_OBJECT = -EPIPE,
    WOULD_BLOCK = -EWOULDBLOCK,
};

}  // namespace android
