// Thread priorities. They are nice values: the lower, the sooner a thread gets its turn.

#pragma once

namespace android {

enum {
    PRIORITY_BACKGROUND = 10,
    PRIORITY_DEFAULT = 0,
};

}  // namespace android
