// A tree in a few numbers: how many entries and bytes it has, what a task of some kind leaves out
// of it, and a sum over what every entry is. Two trees with equal tallies hold the same entries,
// whatever the order in which they were met. Memory is constant.
//
// Not thread-safe: a tally belongs to one thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <string_view>

namespace peltexctl {

// Why a task leaves an entry out of what it makes.
enum class LeftOut {
    kHardLinked,  // a file with more than one name
    kDex,         // compiled code, *.dex
    kLib,         // native libraries
    kLink,        // a symbolic link
    kSpecial,     // a socket, FIFO or device
    kTinker,      // patches that an application downloads for itself
    kOwnArchive,  // the archive that is being written
    kUnreadable,  // cannot be looked at or opened
};
inline constexpr size_t kLeftOutReasons = 8;

// One entry as its tally sees it.
struct TallyEntry {
    std::string_view path;         // below the tree's top, without '/' at either end
    char type = '0';               // as archives have it: '0' file, '2' link, '5' directory
    uint64_t size = 0;             // bytes of content; 0 for links and directories
    std::string_view link;         // a link's target
    std::optional<uint32_t> mode;  // permission bits, where the task's kind brings them back
};

// The permission bits that a restore of an archive brings back: links have none, and a file loses
// its set-id bits to the change of owner.
inline std::optional<uint32_t> ArchivedMode(char type, uint32_t mode) {
    return type == '2' ? std::nullopt : std::optional(mode & (type == '5' ? 07777U : 01777U));
}

class Tally {
  public:
    void Add(const TallyEntry& entry) {
        constexpr uint64_t kPage = 4096;
        const uint64_t pages = (entry.size + kPage - 1) / kPage + (entry.type == '5' ? 1 : 0);
        // One for the header, and for a long name another and its text.
        const uint64_t blocks = (entry.size + 511) / 512 + (entry.path.size() < 100 ? 1 : 3);
        AddUp(std::array{uint64_t{1}, entry.size, HashOf(entry), pages * kPage, blocks * 512});
    }

    // A directory that is left out counts as one, whatever it holds.
    void LeaveOut(LeftOut reason) { ++sums_[kLeftOut + static_cast<size_t>(reason)]; }

    // Of another part of the same tree.
    void Add(const Tally& other) { AddUp(other.sums_); }

    uint64_t entries() const { return sums_[0]; }
    uint64_t bytes() const { return sums_[1]; }
    // A number for all entries, whatever their order; for a single one, of that one.
    uint64_t sum() const { return sums_[2]; }
    // The room in bytes that they take on a file system with blocks of 4 KiB, and in an archive.
    uint64_t stored() const { return sums_[3]; }
    uint64_t packed() const { return sums_[4] + 1024; }
    uint64_t left_out(LeftOut reason) const {
        return sums_[kLeftOut + static_cast<size_t>(reason)];
    }
    uint64_t left_out() const {
        return std::accumulate(sums_.begin() + kLeftOut, sums_.end(), uint64_t{0});
    }

    // What is left out takes no part.
    bool operator==(const Tally& other) const {
        return std::equal(sums_.begin(), sums_.begin() + kLeftOut, other.sums_.begin());
    }

  private:
    template <size_t kCount>
    void AddUp(const std::array<uint64_t, kCount>& sums) {
        std::transform(sums.begin(), sums.end(), sums_.begin(), sums_.begin(), std::plus<>());
    }

    // Keeps every bit in play in the sum of many.
    static uint64_t Mix(uint64_t value) {
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
        return value ^ (value >> 31);
    }

    static uint64_t HashOf(const TallyEntry& entry) {
        constexpr uint64_t kNoMode = 0xFFFFFFFF;
        const std::hash<std::string_view> hash;
        uint64_t value = Mix(hash(entry.path) + entry.size);
        value = Mix(value + (uint64_t{entry.mode.value_or(kNoMode)} << 8) +
                    static_cast<unsigned char>(entry.type));
        return entry.link.empty() ? value : Mix(value + hash(entry.link));
    }

    // Of entries, wrapping: how many, bytes, hashes, what they take; then of what is left out.
    static constexpr size_t kLeftOut = 5;
    std::array<uint64_t, kLeftOut + kLeftOutReasons> sums_ = {};
};

}  // namespace peltexctl
