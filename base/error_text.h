// The number of the last error, kept and told.
#pragma once

#include <errno.h>
#include <string.h>

namespace android::installd {

// The text of an error number, for the log. Unlike strerror it is safe on several threads.
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

// Leaves errno to the caller as it is now: a log line that comes in between may change it.
class KeepErrno {
  public:
    KeepErrno() : mError(errno) {}
    ~KeepErrno() { errno = mError; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

  private:
    const int mError;
};

}  // namespace android::installd
