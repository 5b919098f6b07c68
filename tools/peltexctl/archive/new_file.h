// A file that takes its name when it is all there. Until then it has a name that says what it is;
// what a killed program left of one is taken away by the next that writes it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "base/file_handles.h"

namespace peltexctl {

// To be used by one thread, but for Discard(). On failure errno tells why.
class NewFile {
  public:
    ~NewFile() { Discard(); }

    // Begins the file `name` of a directory, which must stay open.
    bool Create(int directory, const std::string& name) {
        directory_ = directory;
        name_ = name;
        unfinished_ = name + ".unfinished";
        unlinkat(directory, unfinished_.c_str(), 0);
        fd_ = android::installd::UniqueFd(
            openat(directory, unfinished_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        is_unfinished_ = fd_.isOpen();
        return is_unfinished_;
    }

    int fd() const { return fd_.get(); }

    // Gives it its mode and its name, in place of what has that name.
    bool Finish(mode_t mode) {
        if (fchmod(fd_.get(), mode) != 0 ||
            renameat(directory_, unfinished_.c_str(), directory_, name_.c_str()) != 0) {
            return false;
        }
        is_unfinished_ = false;
        return true;
    }

    // Leaves nothing of a file that is not finished. Returns whether it was one.
    bool Discard() {
        return is_unfinished_.exchange(false) && unlinkat(directory_, unfinished_.c_str(), 0) == 0;
    }

  private:
    int directory_ = -1;
    std::string name_;
    std::string unfinished_;
    android::installd::UniqueFd fd_;
    std::atomic<bool> is_unfinished_{false};
};

}  // namespace peltexctl
