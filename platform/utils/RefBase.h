// RefBase: the base of every counted object, and wp<T>, a reference that does not keep it alive.
//
// The counts are atomic: any thread may take and drop references. One wp is used by one thread at a
// time. The object is deleted by the thread that drops the last strong reference.

#pragma once

#include <stdint.h>
#include <utils/StrongPointer.h>

#include <cstddef>
#include <utility>

namespace android {

class RefBase {
  public:
    // Outlives the object for as long as somebody holds a weak reference to it.
    class weakref_type {
      public:
        void incWeak(const void* id);
        void decWeak(const void* id);
        // Takes a strong reference. Returns false once the last one was dropped.
        bool attemptIncStrong(const void* id);

      protected:
        ~weakref_type() = default;
    };

    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    // `id` names the holder to the platform's debug builds and is not looked at here.
    void incStrong(const void* id) const;
    void decStrong(const void* id) const;
    // The caller owes one decWeak() on the result.
    weakref_type* createWeak(const void* id) const;

  protected:
    RefBase();
    virtual ~RefBase();

  private:
    class weakref_impl;

    weakref_impl* const mRefs;
};

template <typename T>
class wp {
  public:
    wp() = default;
    wp(T* other) : mPtr(other), mRefs(other != nullptr ? other->createWeak(this) : nullptr) {}
    wp(const wp& other) : wp(other.mPtr, other.mRefs) {}
    wp(wp&& other) noexcept
        : mPtr(std::exchange(other.mPtr, nullptr)), mRefs(std::exchange(other.mRefs, nullptr)) {}
    template <typename U>
    wp(const sp<U>& other) : wp(static_cast<T*>(other.get())) {}
    // REQUIRES: a living object where T is a virtual base of U; the way to it is in the object.
    template <typename U>
    wp(const wp<U>& other) : wp(other.mPtr, other.mRefs) {}
    ~wp() {
        if (mRefs != nullptr) {
            mRefs->decWeak(this);
        }
    }

    wp& operator=(wp other) noexcept {
        std::swap(mPtr, other.mPtr);
        std::swap(mRefs, other.mRefs);
        return *this;
    }

    // Returns an owner, or null when the object is gone or going.
    sp<T> promote() const {
        sp<T> result;
        if (mRefs != nullptr && mRefs->attemptIncStrong(&result)) {
            result.mPtr = mPtr;
        }
        return result;
    }

    // The address alone: what it points to may be gone.
    T* unsafe_get() const { return mPtr; }

    // Two weak references are equal when they were taken of the same object. An address says less:
    // a newer object may have got the address of a dead one.
    template <typename U>
    bool operator==(const wp<U>& other) const {
        return mRefs == other.mRefs;
    }
    bool operator==(std::nullptr_t) const { return mPtr == nullptr; }

  private:
    template <typename U>
    friend class wp;

    wp(T* ptr, RefBase::weakref_type* refs) : mPtr(ptr), mRefs(refs) {
        if (mRefs != nullptr) {
            mRefs->incWeak(this);
        }
    }

    T* mPtr = nullptr;
    RefBase::weakref_type* mRefs = nullptr;
};

}  // namespace android
