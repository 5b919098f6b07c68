// IInterface: the base of every interface that is called through a binder.
//
// Safe from any thread.

#pragma once

#include <binder/IBinder.h>
#include <utils/RefBase.h>

namespace android {

class IInterface : public virtual RefBase {
  public:
    IInterface();

    // The identity behind an interface; null for null.
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

  protected:
    ~IInterface() override;

    virtual IBinder* onAsBinder() = 0;
};

}  // namespace android
