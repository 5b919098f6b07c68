// Archives as inputs: their mutations, and a callback that aborts.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "tar/tar_callback.h"

namespace peltex_fuzz {

// Part of an input that is an archive.
struct ArchivePart {
    size_t at;
    size_t size;
};

// Mutates as libFuzzer does or, every other time, one field of one header of the archives; then
// gives the headers magic and checksum, without which few would be read any further (of some
// inputs the wrong ones are kept). `partsOf` finds the archives in an input. Returns the new size.
size_t mutateArchives(uint8_t* data, size_t size, size_t maxSize, unsigned int seed,
                      std::vector<ArchivePart> (*partsOf)(const std::string& input));

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
