// Tested by tests/unit/platform/platform_test.cpp.

#include <utils/RefBase.h>

#include <atomic>
#include <cassert>

namespace android {
namespace {

// A strong count that no number of holders reaches: an object that nobody has held yet is told from
// one whose last holder has gone, and a weak reference to it can still be promoted.
constexpr int32_t kNeverHeld = 1 << 28;

}  // namespace

// The counts, apart from the object. The object itself holds one of the weak references, so what
// deletes this block is always the last decWeak(), whoever makes it.
class RefBase::weakref_impl final : public RefBase::weakref_type {
  public:
    // Returns the count before.
    int32_t addHolder() {
        const int32_t before = mStrong.fetch_add(1, std::memory_order_relaxed);
        settleFirst(before);
        return before;
    }

    // The mark of an unheld object goes with its first holder. Others may come and go in between:
    // the count stays far above 0 until the mark is off.
    void settleFirst(int32_t before) {
        if (before == kNeverHeld) {
            mStrong.fetch_sub(kNeverHeld, std::memory_order_relaxed);
        }
    }

    std::atomic<int32_t> mStrong{kNeverHeld};
    std::atomic<int32_t> mWeak{1};
};

void RefBase::weakref_type::incWeak(const void* /*id*/) {
    static_cast<weakref_impl*>(this)->mWeak.fetch_add(1, std::memory_order_relaxed);
}

void RefBase::weakref_type::decWeak(const void* /*id*/) {
    auto* impl = static_cast<weakref_impl*>(this);
    if (impl->mWeak.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete impl;
    }
}

bool RefBase::weakref_type::attemptIncStrong(const void* /*id*/) {
    auto* impl = static_cast<weakref_impl*>(this);
    int32_t count = impl->mStrong.load(std::memory_order_relaxed);
    while (count > 0) {
        if (impl->mStrong.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) {
            impl->settleFirst(count);
            return true;
        }
    }
    return false;
}

RefBase::RefBase() : mRefs(new weakref_impl) {}

RefBase::~RefBase() {
    // An object on the stack, or deleted by hand: nobody held it and nobody can from here on.
    int32_t unheld = kNeverHeld;
    mRefs->mStrong.compare_exchange_strong(unheld, 0, std::memory_order_relaxed);
    mRefs->decWeak(this);
}

void RefBase::incStrong(const void* /*id*/) const {
    [[maybe_unused]] const int32_t before = mRefs->addHolder();
    assert(before > 0 && "a reference was taken on an object that is gone");
}

void RefBase::decStrong(const void* /*id*/) const {
    // Acquire and release on the counter itself: what every holder wrote is seen by the destructor.
    const int32_t before = mRefs->mStrong.fetch_sub(1, std::memory_order_acq_rel);
    assert(before > 0 && before != kNeverHeld && "a reference was dropped that nobody held");
    if (before == 1) {
        delete this;
    }
}

RefBase::weakref_type* RefBase::createWeak(const void* id) const {
    mRefs->incWeak(id);
    return mRefs;
}

}  // namespace android
