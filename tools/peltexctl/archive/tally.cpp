#include "archive/tally.h"

#include <numeric>

namespace peltexctl {

namespace {

// FNV-1a over the fields, each closed by a byte that ends no other, then mixed so that the sum of
// many hashes keeps every bit in play.
class Hash {
  public:
    explicit Hash(uint64_t seed) : value_(seed) {}

    void Take(std::string_view text) {
        for (const char c : text) {
            TakeByte(static_cast<unsigned char>(c));
        }
        TakeByte(0);
    }
    void Take(uint64_t number) {
        value_ = (value_ ^ number) * 0x9FB21C651E98DF25;
        value_ ^= value_ >> 32;
    }
    uint64_t Finish() const {
        uint64_t value = value_;
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
        return value ^ (value >> 31);
    }

  private:
    void TakeByte(unsigned char byte) { value_ = (value_ ^ byte) * 0x100000001B3; }

    uint64_t value_;
};

uint64_t HashOf(uint64_t seed, const TallyEntry& entry) {
    constexpr uint64_t kNoMode = 0xFFFFFFFF;
    Hash hash(seed);
    hash.Take(entry.path);
    hash.Take(std::string_view(&entry.type, 1));
    hash.Take(entry.size);
    hash.Take(entry.link);
    hash.Take(entry.mode ? *entry.mode : kNoMode);
    return hash.Finish();
}

}  // namespace

void Tally::Add(const TallyEntry& entry) {
    ++entries_;
    bytes_ += entry.size;
    sum_[0] += HashOf(0xCBF29CE484222325, entry);
    sum_[1] += HashOf(0x9E3779B97F4A7C15, entry);
}

uint64_t Tally::left_out() const {
    return std::accumulate(left_out_.begin(), left_out_.end(), uint64_t{0});
}

}  // namespace peltexctl
