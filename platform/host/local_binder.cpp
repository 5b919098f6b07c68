// Tested by tests/unit/platform/platform_test.cpp.

#include "host/local_binder.h"

#include <algorithm>

namespace android {
namespace host {

status_t LocalBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* /*cookie*/,
                                  uint32_t flags) {
    if (recipient == nullptr) {
        return BAD_VALUE;
    }
    const std::lock_guard<std::mutex> lock(mLock);
    if (mDead) {
        return DEAD_OBJECT;
    }
    mLinks.push_back({recipient, flags});
    return OK;
}

status_t LocalBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* /*cookie*/,
                                    uint32_t flags, wp<DeathRecipient>* /*outRecipient*/) {
    const std::lock_guard<std::mutex> lock(mLock);
    if (mDead) {
        return DEAD_OBJECT;
    }
    const auto link = std::find_if(mLinks.begin(), mLinks.end(), [&](const Link& candidate) {
        return candidate.recipient == recipient && candidate.flags == flags;
    });
    if (link == mLinks.end()) {
        return NAME_NOT_FOUND;
    }
    mLinks.erase(link);
    return OK;
}

void LocalBinder::notifyDeath() {
    std::vector<Link> links;
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mDead = true;
        links.swap(mLinks);
    }
    // A recipient may drop the last reference to this object: nothing of it is touched below.
    const wp<IBinder> who(this);
    for (const Link& link : links) {
        const sp<DeathRecipient> recipient = link.recipient.promote();
        if (recipient != nullptr) {
            recipient->binderDied(who);
        }
    }
}

}  // namespace host
}  // namespace android
