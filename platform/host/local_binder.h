// LocalBinder: the binder of a client in this process, whose death somebody else announces.
//
// Safe from any thread.

#pragma once

#include <binder/IBinder.h>

#include <mutex>
#include <vector>

namespace android {
namespace host {

class LocalBinder : public IBinder {
  public:
    // A null recipient is refused with BAD_VALUE. One that is linked twice is told twice. Links are
    // found again by recipient and flags; cookies are not kept.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    // Tells every linked recipient that still lives, on the calling thread and with no lock held,
    // and drops all links. The object is dead from then on; a second call does nothing.
    void notifyDeath();

  private:
    struct Link {
        wp<DeathRecipient> recipient;
        uint32_t flags;
    };

    std::mutex mLock;
    // Guarded by mLock.
    std::vector<Link> mLinks;
    bool mDead = false;
};

}  // namespace host
}  // namespace android
