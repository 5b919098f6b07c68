// IBinder: the identity of an object that may live in another process.
//
// Safe from any thread. Death notices arrive on a thread of the platform's.

#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class IBinder : public virtual RefBase {
  public:
    class DeathRecipient : public virtual RefBase {
      public:
        virtual void binderDied(const wp<IBinder>& who) = 0;
    };

    // Only a weak reference to the recipient is kept.
    // Returns OK, or DEAD_OBJECT when the object is dead already: no notice will come.
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0) = 0;

    // Drops the first link of `recipient` with these flags.
    // Returns OK, NAME_NOT_FOUND when there is none, DEAD_OBJECT after the death.
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0,
                                   wp<DeathRecipient>* outRecipient = nullptr) = 0;

  protected:
    IBinder();
    ~IBinder() override;
};

}  // namespace android
