// The text of an error number, for the log. Unlike strerror it is safe on several threads.
#pragma once

#include <errno.h>
#include <string.h>

namespace android::installd {

class ErrorText {
  public:
    explicit ErrorText(int error = errno) : mText(strerror_r(error, mBuffer, sizeof(mBuffer))) {}
    ErrorText(const ErrorText&) = delete;
    ErrorText& operator=(const ErrorText&) = delete;

    const char* c_str() const { return mText; }

  private:
    char mBuffer[128] = {};
    const char* mText;
};

}  // namespace android::installd
