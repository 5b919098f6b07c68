// Which paths of an archive came before, in a fixed amount of memory. A filter that remembers every
// path, and is wrong about one in some hundred of those that it has not met, finds those to look at
// a second time.
//
// Not thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace peltexctl {

// What is remembered of a path.
enum class PathMark { kAny, kLink, kDirectory };

uint64_t HashOfPath(std::string_view path);

// A Bloom filter: what was added is found for certain.
class PathFilter {
  public:
    PathFilter();

    void Add(std::string_view path, PathMark mark) { Meet(path, mark, true); }
    bool MayHave(std::string_view path, PathMark mark) { return Meet(path, mark, false); }

  private:
    // Returns whether it may have been added before.
    bool Meet(std::string_view path, PathMark mark, bool adds);

    // Pages that are not used are not there.
    std::unique_ptr<uint64_t[], void (*)(void*)> words_;
};

}  // namespace peltexctl
