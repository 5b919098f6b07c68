// Files and trees for tests, in /data of the throw-away root.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace peltex_test {

// Makes the parents too.
void makeDir(const std::string& path, mode_t mode = 0755);
void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644);
void makeLink(const std::string& target, const std::string& path);
void makeFifo(const std::string& path);
void makeSocket(const std::string& path);

std::string readFile(const std::string& path);
bool exists(const std::string& path);  // of the entry itself: a dangling link exists
struct stat statOf(const std::string& path);
mode_t modeOf(const std::string& path);

// "uid:gid mode" in decimal and octal, "10123:10123 771".
std::string ownerAndMode(const std::string& path);

// Names of everything below `path`, relative to it and sorted; directories end in '/'.
std::vector<std::string> listTree(const std::string& path);

// A fresh directory under /data/data, removed with all it holds when the object goes.
class TempTree {
  public:
    TempTree();
    ~TempTree();
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    const std::string& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

  private:
    std::string mPath;
};

}  // namespace peltex_test
