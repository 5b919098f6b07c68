// Archives as inputs: headers that mutations leave valid, and a callback that aborts.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "tar/tar_callback.h"

// libFuzzer's own mutations of `data`; returns the new size.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace peltex_fuzz {

// Of the mutations of an archive, which of libFuzzer's seeds keep their wrong checksums: with them,
// few headers are read any further.
inline bool keepsWrongSums(unsigned int seed) {
    return seed % 8 == 0;
}

// Gives the headers of an archive, as far as they follow one another, magic and checksum.
void sealHeaders(uint8_t* archive, size_t size);

// Aborts at the n-th question, at none for 0.
class AbortingCallBack : public android::installd::TarCallBack {
  public:
    explicit AbortingCallBack(int question = 0) : mLeft(question) {}

    bool IsAborted() override {
        mIsAborted = mIsAborted || (mLeft > 0 && --mLeft == 0);
        return mIsAborted;
    }
    void OnTaskProgress(unsigned long /*bytes*/) override {}
    void OnPackagedOneSplitTar(const char* /*sliceInfo*/) override {}
    void WaitTaskLocked() override {}

  private:
    int mLeft;
    bool mIsAborted = false;
};

}  // namespace peltex_fuzz
