// Which paths of an archive came before, in a fixed amount of memory: a filter that remembers
// every path, and is wrong about one in some hundred of those that it has not met, finds those to
// look at a second time; a list of these tells for certain.
//
// Not thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

namespace peltexctl {

// What is remembered of a path.
enum class PathMark { kAny, kLink, kDirectory };

// A Bloom filter: what was added is found for certain.
class PathFilter {
  public:
    PathFilter();

    void Add(std::string_view path, PathMark mark);
    bool MayHave(std::string_view path, PathMark mark) const;

  private:
    struct Free {
        void operator()(uint64_t* words) const { std::free(words); }
    };

    // Pages that are not used are not there.
    std::unique_ptr<uint64_t[], Free> words_;
};

// Some paths, and what came of each while the archive is read once more.
class PathList {
  public:
    // To be filled before it is asked. Returns false when there are too many.
    bool Add(std::string_view path);
    void Finish();
    bool empty() const { return rows_.empty(); }

    // Null for a path that was not added.
    struct Row {
        uint64_t hash;
        bool is_there;
        bool is_link;
    };
    Row* Find(std::string_view path);

  private:
    std::vector<Row> rows_;  // sorted by hash once it is finished
};

}  // namespace peltexctl
