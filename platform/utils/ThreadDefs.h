// Thread priorities. They are nice values: the lower, the sooner a thread gets its turn.

#pragma once

namespace android {

enum {
    PRIORITY_LOWEST = 19,
    PRIORITY_BACKGROUND = 10,
    PRIORITY_NORMAL = 0,
    PRIORITY_HIGHEST = -20,
    PRIORITY_DEFAULT = PRIORITY_NORMAL,
};

}  // namespace android
