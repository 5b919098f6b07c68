// Tested by tests/platform/platform_test.cpp.

#include <binder/IBinder.h>

namespace android {

IBinder::IBinder() = default;

IBinder::~IBinder() = default;

}  // namespace android
