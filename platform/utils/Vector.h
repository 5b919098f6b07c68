// Vector<T>: the platform's array list, here over std::vector.
//
// Not safe to share between threads. Indexes are not checked where a reference is returned.

#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <vector>

#include "utils/Errors.h"

namespace android {

template <typename T>
class Vector {
  public:
    using iterator = T*;
    using const_iterator = const T*;

    void clear() { mItems.clear(); }

    size_t size() const { return mItems.size(); }
    bool isEmpty() const { return mItems.empty(); }

    const T& operator[](size_t index) const { return mItems[index]; }
    T& editItemAt(size_t index) { return mItems[index]; }

    iterator begin() { return mItems.data(); }
    iterator end() { return mItems.data() + size(); }
    const_iterator begin() const { return mItems.data(); }
    const_iterator end() const { return mItems.data() + size(); }

    // Returns the index of the new item.
    ssize_t add(const T& item) {
        mItems.push_back(item);
        return static_cast<ssize_t>(size() - 1);
    }

    // Returns `index`, or BAD_VALUE for an item that is not there with the list unchanged.
    ssize_t removeAt(size_t index) {
        if (index >= size()) {
            return BAD_VALUE;
        }
        mItems.erase(mItems.begin() + static_cast<ptrdiff_t>(index));
        return static_cast<ssize_t>(index);
    }

  private:
    std::vector<T> mItems;
};

}  // namespace android
