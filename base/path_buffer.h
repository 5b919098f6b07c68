// A path in a fixed buffer that a walk extends by an entry's name and cuts back again: a level of
// the tree costs no buffer of its own.
#pragma once

#include <stddef.h>
#include <string.h>

#include "bounded/bounded.h"

namespace android::installd {

class PathBuffer {
  public:
    static constexpr size_t kSize = 2048;

    // What becomes of an entry's name that does not fit.
    enum class Fit {
        kCut,    // it is cut off silently
        kWhole,  // it is refused
    };

    // What does not fit is cut off silently, here and in append().
    explicit PathBuffer(const char* path) { append(path); }
    PathBuffer(const PathBuffer&) = delete;
    PathBuffer& operator=(const PathBuffer&) = delete;

    void append(const char* text) {
        strncpy_s(mText + mLength, kSize - mLength, text, kSize - mLength - 1);
        mLength += strlen(mText + mLength);
    }

    // Appends "/" and `name`. Where names are cut, a path that ends in a slash gets no second one;
    // where they are kept whole it does, because archives count the names from behind it. Returns
    // false, with the path unchanged, when the name does not fit; of one that may be cut, when
    // nothing of it fits: such a path would name the directory itself again, and a walk that
    // followed it would never end.
    [[nodiscard]] bool appendEntry(const char* name, Fit fit) {
        const size_t slash = fit == Fit::kCut && endsInSlash() ? 0 : 1;
        const size_t needed = slash + (fit == Fit::kCut ? 1 : strlen(name));
        if (mLength + needed >= kSize) {
            return false;
        }
        if (slash != 0) {
            append("/");
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
