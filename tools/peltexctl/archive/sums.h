// SHA-256 sums over an archive, or over the slices of a set and its check file, in the file
// NAME.tar.sha256 beside them, which `sha256sum -c` reads. Archives themselves hold no sums.
#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "archive/set.h"
#include "base/file_handles.h"

namespace peltexctl {

// The sums' file of the archive NAME.tar, the check file NAME.tar.txt or the slice NAME.tar.0.
std::string SumsName(const std::string& name);

// Sums files on a thread of its own, each read once, in the order in which they are added.
//
// To be used by one thread at a time.
class Summer {
  public:
    Summer();
    ~Summer();  // gives up what is left to do

    Summer(const Summer&) = delete;
    Summer& operator=(const Summer&) = delete;

    // `file` is open for reading; `name` is what the sums' file calls it. Waits while many files
    // are in front of it.
    void Add(android::installd::UniqueFd file, const std::string& name);

    // Waits for all sums, then writes them to `name` in `directory`, in place of one that is there,
    // with owner and mode of `like`. On failure nothing is left, and one line is in `error`.
    bool Finish(int directory, const std::string& name, const struct stat& like,
                std::string* error);

  private:
    struct Job {
        android::installd::UniqueFd file;
        std::string name;
    };

    void Run();
    void Sum(const Job& job);

    std::mutex mutex_;
    std::condition_variable changed_;
    // Protected by mutex_.
    std::deque<Job> jobs_;  // the first is being summed
    bool ends_ = false;
    std::string error_;

    std::string lines_;   // of the thread, and of Finish() once that has ended
    std::thread thread_;  // none where none can be started: Add() sums then
};

// Compares the files of `set` with their sums, where there is a file of them; what differs is a
// fault. Returns how many faults there were. Reads everything.
uint64_t CheckSums(const ArchiveSet& set, const FindingSink& sink);

}  // namespace peltexctl
