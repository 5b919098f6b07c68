#include <binder/IBinder.h>

namespace android {

IBinder::IBinder() = default;

IBinder::~IBinder() = default;

}  // namespace android
