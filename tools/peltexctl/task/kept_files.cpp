// Tested by tests/peltexctl/test_signals.py.
#include "task/kept_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace peltexctl {

namespace {

std::string SecondName(const std::string& path) {
    return path + ".kept";
}

bool IsThere(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace

bool KeptFiles::Keep(const std::string& path) {
    const std::lock_guard lock(mutex_);
    if (link(path.c_str(), SecondName(path).c_str()) != 0) {
        return false;
    }
    paths_.push_back(path);
    return true;
}

void KeptFiles::KeepOrRename(const std::string& path) {
    if (Keep(path)) {
        return;
    }
    const std::lock_guard lock(mutex_);
    if (rename(path.c_str(), SecondName(path).c_str()) == 0) {
        paths_.push_back(path);
    }
}

void KeptFiles::Recover(const std::string& path) {
    struct stat first = {};
    struct stat second = {};
    const std::string name = SecondName(path);
    if (lstat(name.c_str(), &second) != 0) {
        return;
    }
    if (lstat(path.c_str(), &first) != 0) {
        rename(name.c_str(), path.c_str());
    } else if (first.st_dev == second.st_dev && first.st_ino == second.st_ino) {
        unlink(name.c_str());
    }
}

void KeptFiles::PutBack() {
    const std::lock_guard lock(mutex_);
    for (const std::string& path : paths_) {
        Recover(path);
    }
    paths_.clear();
}

size_t KeptFiles::CountRemoved() const {
    const std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(
        paths_.begin(), paths_.end(), [](const std::string& path) { return !IsThere(path); }));
}

}  // namespace peltexctl
