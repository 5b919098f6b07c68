#include "archive/tally.h"

#include <functional>

namespace peltexctl {

namespace {

// Keeps every bit in play in the sum of many.
uint64_t Mix(uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

uint64_t HashOf(const TallyEntry& entry) {
    constexpr uint64_t kNoMode = 0xFFFFFFFF;
    const std::hash<std::string_view> hash;
    uint64_t value = Mix(hash(entry.path) + entry.size);
    value = Mix(value + (uint64_t{entry.mode.value_or(kNoMode)} << 8) +
                static_cast<unsigned char>(entry.type));
    return entry.link.empty() ? value : Mix(value + hash(entry.link));
}

}  // namespace

void Tally::Add(const TallyEntry& entry) {
    ++entries_;
    bytes_ += entry.size;
    sum_ += HashOf(entry);
}

}  // namespace peltexctl
