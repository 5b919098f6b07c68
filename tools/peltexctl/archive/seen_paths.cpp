// Tested by tests/peltexctl/test_archives.py.
#include "archive/seen_paths.h"

#include <cstdlib>
#include <functional>
#include <new>

namespace peltexctl {

namespace {

constexpr size_t kWords = size_t{1} << 18;
constexpr int kBitsOfPath = 4;

}  // namespace

uint64_t HashOfPath(std::string_view path) {
    return std::hash<std::string_view>()(path);
}

PathFilter::PathFilter()
    : words_(static_cast<uint64_t*>(std::calloc(kWords, sizeof(uint64_t))), std::free) {
    if (words_ == nullptr) {
        throw std::bad_alloc();
    }
}

bool PathFilter::Meet(std::string_view path, PathMark mark, bool adds) {
    const uint64_t hash = HashOfPath(path) + static_cast<uint64_t>(mark) * 0x9E3779B97F4A7C15;
    uint64_t bit = hash;
    bool is_there = true;
    for (int i = 0; i < kBitsOfPath; i++, bit += (hash >> 32) | 1) {
        uint64_t& word = words_[bit / 64 % kWords];
        const uint64_t mask = uint64_t{1} << (bit % 64);
        is_there = is_there && (word & mask) != 0;
        word |= adds ? mask : 0;
    }
    return is_there;
}

}  // namespace peltexctl
