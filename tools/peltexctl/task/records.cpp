// Tested by tests/client/peltexctl.md.
#include "task/records.h"

#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <optional>

#include "archive/reader.h"
#include "base/numbers.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// The library reads lines in pieces of this size.
constexpr size_t kMaxLine = 2048;

// From its end, as the path may hold semicolons; numbers are the library's, its decimal 7777 too.
std::optional<TallyEntry> ParseRecord(std::string_view line) {
    using android::installd::parseNumber;
    std::string fields[4];  // time, size, type, mode
    for (std::string& field : fields) {
        const size_t mark = line.rfind(';');
        if (mark == std::string_view::npos || mark == 0) {
            return std::nullopt;
        }
        field = line.substr(mark + 1);
        line = line.substr(0, mark);
    }
    const long size = parseNumber(fields[1].c_str());
    const auto mode = static_cast<uint32_t>(parseNumber(fields[3].c_str()));
    if (parseNumber(fields[0].c_str()) < 0 || size < 0 || fields[3].empty() || mode > 7777) {
        return std::nullopt;
    }
    const bool is_directory = fields[2] == "1";
    return TallyEntry{line, is_directory ? '5' : '0',
                      is_directory ? 0 : static_cast<uint64_t>(size), "", mode & 07777};
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
