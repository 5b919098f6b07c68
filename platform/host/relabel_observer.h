// Sees the relabelling calls that do nothing on a host, and can refuse them.
//
// Safe from any thread.

#pragma once

#include <sys/types.h>

#include <functional>

namespace android {
namespace host {

// Told the arguments of each call as they came, before the path is looked at. Returns 0, or the
// errno value with which the call is to fail. Called by several threads at a time; it must neither
// relabel nor set an observer.
using RelabelObserver =
    std::function<int(const char* pkgdir, const char* seinfo, uid_t uid, unsigned int flags)>;

// An empty observer is none. Returns the previous one, of which no call is under way any more.
RelabelObserver setRelabelObserver(RelabelObserver observer);

// Sets an observer for its own lifetime.
class ScopedRelabelObserver {
  public:
    explicit ScopedRelabelObserver(RelabelObserver observer);
    ~ScopedRelabelObserver();
    ScopedRelabelObserver(const ScopedRelabelObserver&) = delete;
    ScopedRelabelObserver& operator=(const ScopedRelabelObserver&) = delete;

  private:
    RelabelObserver mPrevious;
};

// For the relabelling call itself. Returns what the observer says, 0 without one.
int tellRelabelObserver(const char* pkgdir, const char* seinfo, uid_t uid, unsigned int flags);

}  // namespace host
}  // namespace android
