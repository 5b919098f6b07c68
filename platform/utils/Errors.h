// Result codes of the platform's native services: 0 is success, everything else is negative.

#pragma once

#include <errno.h>
#include <stdint.h>

namespace android {

using status_t = int32_t;

enum : status_t {
    OK = 0,
    NO_ERROR = OK,

    UNKNOWN_ERROR = INT32_MIN,

    NO_MEMORY = -ENOMEM,
    INVALID_OPERATION = -ENOSYS,
    BAD_VALUE = -EINVAL,
    NAME_NOT_FOUND = -ENOENT,
    PERMISSION_DENIED = -EPERM,
    ALREADY_EXISTS = -EEXIST,
    DEAD_OBJECT = -EPIPE,
    BAD_INDEX = -EOVERFLOW,
    WOULD_BLOCK = -EWOULDBLOCK,
    TIMED_OUT = -ETIMEDOUT,
};

}  // namespace android
