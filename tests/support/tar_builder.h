// Archives byte by byte, crafted ones included.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>

namespace peltex_test {

constexpr size_t kBlock = 512;
inline const std::string kEndBlocks(2 * kBlock, '\0');

inline std::string octal(uint64_t value, int digits) {
    char text[32];
    snprintf(text, sizeof(text), "%0*llo", digits, static_cast<unsigned long long>(value));
    return text;
}

inline std::string padded(std::string data) {
    data.resize((data.size() + kBlock - 1) / kBlock * kBlock);
    return data;
}

// The checksum as the format has it: unsigned bytes, its own field as spaces.
inline unsigned sumOf(std::string block) {
    block.replace(148, 8, 8, ' ');
    unsigned sum = 0;
    for (const char byte : block) {
        sum += static_cast<unsigned char>(byte);
    }
    return sum;
}

// One header; bytes() seals it with its checksum.
class Header {
  public:
    Header(char type, const std::string& name, uint64_t size = 0) {
        put(0, name).mode(0644).owner(0, 0).put(124, octal(size, 11)).put(136, octal(1, 11));
        put(156, {type}).put(257, "ustar");
    }
    Header& put(size_t offset, const std::string& text) {
        mBlock.replace(offset, text.size(), text);
        return *this;
    }
    Header& mode(unsigned value) { return put(100, octal(value, 7)); }
    Header& owner(unsigned uid, unsigned gid) {
        return put(108, octal(uid, 7)).put(116, octal(gid, 7));
    }
    Header& link(const std::string& target) { return put(157, target); }
    std::string bytes(int digits = 6) {
        return put(148, (octal(sumOf(mBlock), digits) + std::string("\0 ", 2)).substr(0, 8)).mBlock;
    }

  private:
    std::string mBlock = std::string(kBlock, '\0');
};

inline std::string entry(char type, const std::string& name, const std::string& content = "") {
    return Header(type, name, content.size()).bytes() + padded(content);
}

// A record of type 'L' or 'K' with the name or target of the entry behind it.
inline std::string longRecord(char type, const std::string& text) {
    return entry(type, "././@LongLink", text + '\0');
}

}  // namespace peltex_test
