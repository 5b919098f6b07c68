// IBackupSessionCallback: what a client gives to hear how its tasks go. On the platform this is
// generated from the interface's definition.
//
// Called from any thread of the library, several at a time.

#pragma once

#include <binder/IInterface.h>
#include <binder/Status.h>
#include <stdint.h>

#include <string>

namespace android {
namespace os {

class IBackupSessionCallback : public IInterface {
  public:
    IBackupSessionCallback();
    ~IBackupSessionCallback() override;

    virtual ::android::binder::Status onTaskStatusChanged(int32_t sessionId, int32_t taskId,
                                                          int32_t statusCode,
                                                          const ::std::string& message) = 0;
};

}  // namespace os
}  // namespace android
