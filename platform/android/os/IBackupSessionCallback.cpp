#include <android/os/IBackupSessionCallback.h>

namespace android {
namespace os {

IBackupSessionCallback::IBackupSessionCallback() = default;

IBackupSessionCallback::~IBackupSessionCallback() = default;

}  // namespace os
}  // namespace android
