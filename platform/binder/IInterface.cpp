#include <binder/IInterface.h>

namespace android {

IInterface::IInterface() = default;

IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    return iface == nullptr ? nullptr : iface->onAsBinder();
}

}  // namespace android
