// Vector<T>: the platform's array list, here over std::vector.
//
// Not safe to share between threads. Indexes are not checked where a reference is returned.

#pragma once

#include <sys/types.h>
#include <utils/Errors.h>

#include <cstddef>
#include <vector>

namespace android {

template <typename T>
class Vector {
  public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    void clear() { mItems.clear(); }

    size_t size() const { return mItems.size(); }
    bool isEmpty() const { return mItems.empty(); }
    bool empty() const { return mItems.empty(); }
    size_t capacity() const { return mItems.capacity(); }
    // Returns the capacity afterwards; it never shrinks.
    ssize_t setCapacity(size_t size) {
        mItems.reserve(size);
        return static_cast<ssize_t>(capacity());
    }

    const T* array() const { return mItems.data(); }
    const T& operator[](size_t index) const { return mItems[index]; }
    const T& itemAt(size_t index) const { return mItems[index]; }
    const T& top() const { return mItems.back(); }
    T& editItemAt(size_t index) { return mItems[index]; }

    iterator begin() { return mItems.data(); }
    iterator end() { return mItems.data() + size(); }
    const_iterator begin() const { return mItems.data(); }
    const_iterator end() const { return mItems.data() + size(); }

    // Both return the index of the new item.
    ssize_t add() { return add(T()); }
    ssize_t add(const T& item) {
        mItems.push_back(item);
        return static_cast<ssize_t>(size() - 1);
    }
    void push() { add(); }
    void push(const T& item) { add(item); }
    void push_back(const T& item) { add(item); }
    void pop() { mItems.pop_back(); }

    // Returns `index`, or BAD_INDEX behind the end with the list unchanged.
    ssize_t insertAt(const T& item, size_t index, size_t numItems = 1) {
        if (index > size()) {
            return BAD_INDEX;
        }
        mItems.insert(at(index), numItems, item);
        return static_cast<ssize_t>(index);
    }
    // Returns `index`, or BAD_VALUE for items that are not there with the list unchanged.
    ssize_t removeItemsAt(size_t index, size_t count = 1) {
        if (index > size() || count > size() - index) {
            return BAD_VALUE;
        }
        mItems.erase(at(index), at(index + count));
        return static_cast<ssize_t>(index);
    }
    ssize_t removeAt(size_t index) { return removeItemsAt(index); }

  private:
    typename std::vector<T>::iterator at(size_t index) {
        return mItems.begin() + static_cast<ptrdiff_t>(index);
    }

    std::vector<T> mItems;
};

}  // namespace android
