#include "host/relabel_observer.h"

#include <mutex>
#include <shared_mutex>
#include <utility>

namespace android {
namespace host {
namespace {

// Shared while an observer is called: two workers may relabel at the same time.
std::shared_mutex gObserverLock;

// Guarded by gObserverLock. Never destroyed: detached threads relabel until the process is gone.
RelabelObserver& currentObserver() {
    static auto& observer = *new RelabelObserver;
    return observer;
}

}  // namespace

RelabelObserver setRelabelObserver(RelabelObserver observer) {
    const std::unique_lock<std::shared_mutex> lock(gObserverLock);
    return std::exchange(currentObserver(), std::move(observer));
}

ScopedRelabelObserver::ScopedRelabelObserver(RelabelObserver observer)
    : mPrevious(setRelabelObserver(std::move(observer))) {}

ScopedRelabelObserver::~ScopedRelabelObserver() {
    setRelabelObserver(std::move(mPrevious));
}

int tellRelabelObserver(const char* pkgdir, const char* seinfo, uid_t uid, unsigned int flags) {
    const std::shared_lock<std::shared_mutex> lock(gObserverLock);
    const RelabelObserver& observer = currentObserver();
    return observer != nullptr ? observer(pkgdir, seinfo, uid, flags) : 0;
}

}  // namespace host
}  // namespace android
