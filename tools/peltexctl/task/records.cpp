// Tested by tests/client/peltexctl.md.
#include "task/records.h"

#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <optional>

#include "archive/reader.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// The library reads lines in pieces of this size.
constexpr size_t kMaxLine = 2048;

// From its end: the path may hold semicolons.
std::optional<TallyEntry> ParseRecord(std::string_view line) {
    int64_t mode = 0;
    int64_t type = 0;
    int64_t size = 0;
    int64_t time = 0;
    for (int64_t* field : {&time, &size, &type, &mode}) {
        const size_t mark = line.rfind(';');
        const auto number = ParseNumber<int64_t>(line.substr(mark + 1));
        if (!number || mark == std::string_view::npos || mark == 0) {
            return std::nullopt;
        }
        *field = *number;
        line = line.substr(0, mark);
    }
    if (mode < 0 || mode > UINT32_MAX || size < 0) {
        return std::nullopt;
    }
    const bool is_directory = type == 1;
    return TallyEntry{line, is_directory ? '5' : '0',
                      is_directory ? 0 : static_cast<uint64_t>(size), "",
                      static_cast<uint32_t>(mode)};
}

}  // namespace

bool ReadRecords(const std::string& file, const std::function<bool(const TallyEntry& record)>& take,
                 const std::function<void(std::string_view line)>& other) {
    const ArchiveFile opened(AT_FDCWD, file, 0);
    const android::installd::UniqueFile stream = opened.Stream();
    if (!opened.fault().empty() || stream == nullptr) {
        return false;
    }
    std::string line;
    char piece[kMaxLine];
    // A joined line ends where the next one begins with '/'.
    const auto give = [&] {
        if (line.empty()) {
            return true;
        }
        const std::string_view text =
            std::string_view(line).substr(0, line.find_last_not_of('\n') + 1);
        const auto record = ParseRecord(text);
        const bool goes_on = record ? take(*record) : (other ? other(text) : void(), true);
        line.clear();
        return goes_on;
    };
    while (fgets(piece, sizeof(piece), stream.get()) != nullptr) {
        const bool begins = other || piece[0] == '/' || line.size() >= 2 * kMaxLine;
        if (begins && !give()) {
            return true;
        }
        line += piece;
    }
    return std::ferror(stream.get()) == 0 && (give(), true);
}

}  // namespace peltexctl
