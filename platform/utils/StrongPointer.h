// sp<T>: a counted owner of an object that derives from RefBase.
//
// Any number of threads may own one object; one sp is used by one thread at a time.

#pragma once

#include <cstddef>
#include <utility>

namespace android {

template <typename T>
class wp;

template <typename T>
class sp {
  public:
    sp() = default;
    // Implicit, as callers pass `this` and `new T` where an owner is taken. Null owns nothing.
    sp(T* other) : mPtr(other) {
        if (mPtr != nullptr) {
            mPtr->incStrong(this);
        }
    }
    sp(const sp& other) : sp(other.mPtr) {}
    sp(sp&& other) noexcept : mPtr(std::exchange(other.mPtr, nullptr)) {}
    template <typename U>
    sp(const sp<U>& other) : sp(static_cast<T*>(other.mPtr)) {}
    template <typename U>
    sp(sp<U>&& other) noexcept : mPtr(std::exchange(other.mPtr, nullptr)) {}
    ~sp() {
        if (mPtr != nullptr) {
            mPtr->decStrong(this);
        }
    }

    // Drops the old object after the new one is in place: its destructor may look at this sp.
    sp& operator=(sp other) noexcept {
        std::swap(mPtr, other.mPtr);
        return *this;
    }

    void clear() { *this = sp(); }

    T* get() const { return mPtr; }
    T& operator*() const { return *mPtr; }
    T* operator->() const { return mPtr; }
    explicit operator bool() const { return mPtr != nullptr; }

  private:
    template <typename U>
    friend class sp;
    template <typename U>
    friend class wp;

    T* mPtr = nullptr;
};

template <typename T, typename U>
bool operator==(const sp<T>& a, const sp<U>& b) {
    return a.get() == b.get();
}
template <typename T>
bool operator==(const sp<T>& a, std::nullptr_t) {
    return a.get() == nullptr;
}
template <typename T, typename U>
bool operator!=(const sp<T>& a, const sp<U>& b) {
    return !(a == b);
}
template <typename T>
bool operator!=(const sp<T>& a, std::nullptr_t) {
    return a.get() != nullptr;
}

}  // namespace android
