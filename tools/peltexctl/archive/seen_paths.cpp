// Tested by tests/peltexctl/test_archives.py.
#include "archive/seen_paths.h"

#include <algorithm>
#include <functional>
#include <new>

namespace peltexctl {

namespace {

constexpr size_t kFilterBits = size_t{1} << 24;
constexpr size_t kMostListed = 16384;
constexpr int kBitsOfPath = 4;

uint64_t HashOf(std::string_view path) {
    return std::hash<std::string_view>()(path);
}

// Calls `take` with each place of the path's bits, until it returns false.
template <typename Take>
bool ForBits(std::string_view path, PathMark mark, const Take& take) {
    const uint64_t hash = HashOf(path) + static_cast<uint64_t>(mark) * 0x9E3779B97F4A7C15;
    for (uint64_t i = 0, bit = hash; i < kBitsOfPath; i++, bit += (hash >> 32) | 1) {
        if (!take(bit / 64 % (kFilterBits / 64), uint64_t{1} << (bit % 64))) {
            return false;
        }
    }
    return true;
}

}  // namespace

PathFilter::PathFilter()
    : words_(static_cast<uint64_t*>(std::calloc(kFilterBits / 64, sizeof(uint64_t)))) {
    if (words_ == nullptr) {
        throw std::bad_alloc();
    }
}

void PathFilter::Add(std::string_view path, PathMark mark) {
    ForBits(path, mark, [this](size_t word, uint64_t bit) {
        words_[word] |= bit;
        return true;
    });
}

bool PathFilter::MayHave(std::string_view path, PathMark mark) const {
    return ForBits(path, mark,
                   [this](size_t word, uint64_t bit) { return (words_[word] & bit) != 0; });
}

bool PathList::Add(std::string_view path) {
    if (rows_.size() == kMostListed) {
        return false;
    }
    rows_.push_back({HashOf(path), false, false});
    return true;
}

void PathList::Finish() {
    std::sort(rows_.begin(), rows_.end(),
              [](const Row& left, const Row& right) { return left.hash < right.hash; });
}

PathList::Row* PathList::Find(std::string_view path) {
    const uint64_t hash = HashOf(path);
    const auto row =
        std::lower_bound(rows_.begin(), rows_.end(), hash,
                         [](const Row& left, uint64_t right) { return left.hash < right; });
    return row != rows_.end() && row->hash == hash ? &*row : nullptr;
}

}  // namespace peltexctl
