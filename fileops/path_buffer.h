// A path in a fixed buffer that a directory walk extends by an entry's name and cuts back again: a
// level of the tree costs no buffer of its own.
#pragma once

#include <stddef.h>
#include <string.h>

#include "bounded/bounded.h"

namespace android::installd {

class PathBuffer {
  public:
    static constexpr size_t kSize = 2048;

    // What does not fit is cut off silently, here and below.
    explicit PathBuffer(const char* path) { append(path); }
    PathBuffer(const PathBuffer&) = delete;
    PathBuffer& operator=(const PathBuffer&) = delete;

    void append(const char* text) {
        strncpy_s(mText + mLength, kSize - mLength, text, kSize - mLength - 1);
        mLength += strlen(mText + mLength);
    }

    // Appends "/", unless the path ends in one, and `name`. Returns false, with the path unchanged,
    // when nothing of the name fits: such a path would name the directory itself again, and a walk
    // that followed it would never end.
    [[nodiscard]] bool appendEntry(const char* name) {
        const size_t length = mLength;
        if (!endsInSlash()) {
            append("/");
        }
        if (mLength == kSize - 1) {
            cut(length);
            return false;
        }
        append(name);
        return true;
    }

    void cut(size_t length) {
        mLength = length;
        mText[length] = '\0';
    }

    bool endsInSlash() const { return mLength > 0 && mText[mLength - 1] == '/'; }
    size_t length() const { return mLength; }
    const char* c_str() const { return mText; }
    char* data() { return mText; }

  private:
    char mText[kSize] = {};
    size_t mLength = 0;
};

}  // namespace android::installd
