// The slices of a set that is being restored. The library removes each when it is done with it, and
// an abort makes it remove those that it has not unpacked, too; here they are kept, where the file
// system has hard links, until what has been unpacked is known to be all there.
//
// Thread-safe.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "task/kept_files.h"

namespace peltexctl {

class RestoredSlices {
  public:
    RestoredSlices() = default;
    RestoredSlices(const RestoredSlices&) = delete;
    RestoredSlices& operator=(const RestoredSlices&) = delete;

    // Undoes what Keep() did in a program that was killed.
    static void Recover(const std::vector<std::string>& paths);

    void Keep(const std::vector<std::string>& paths);
    // Gives back those that were removed.
    void PutBack() { kept_.PutBack(); }

    // Whether an abort loses nothing.
    bool are_kept() const { return count_ > 0; }
    // How many are unpacked, in words; empty where that is not known.
    std::string DescribeProgress() const;

  private:
    KeptFiles kept_;
    std::atomic<size_t> count_{0};  // of those that are kept: all or none
};

}  // namespace peltexctl
