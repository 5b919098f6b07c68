// Tested by tests/client/peltexctl.md.
#include "task/records.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <optional>

#include "task/directory.h"

namespace peltexctl {

namespace {

// The library reads lines in pieces of this size.
constexpr size_t kMaxLine = 2048;

// Takes the number behind the last ';' off the line.
template <typename Number>
bool TakeNumber(std::string_view* line, Number* number) {
    const size_t mark = line->rfind(';');
    if (mark == std::string_view::npos) {
        return false;
    }
    const std::string_view text = line->substr(mark + 1);
    *line = line->substr(0, mark);
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *number);
    return error == std::errc() && stop == end;
}

std::optional<Record> ParseRecord(std::string_view line) {
    Record record{};
    int64_t time = 0;
    int type = 0;
    if (!TakeNumber(&line, &time) || !TakeNumber(&line, &record.size) ||
        !TakeNumber(&line, &type) || !TakeNumber(&line, &record.mode) || line.empty()) {
        return std::nullopt;
    }
    record.path = line;
    record.is_directory = type == 1;
    return record;
}

}  // namespace

bool ReadRecords(const std::string& path, RecordLines lines,
                 const std::function<bool(const Record& record)>& take,
                 const std::function<void(std::string_view line)>& other) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const android::installd::UniqueFile file(fd < 0 ? nullptr : fdopen(fd, "r"));
    struct stat status = {};
    if (file == nullptr || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
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
        const std::optional<Record> record = ParseRecord(text);
        const bool goes_on = record ? take(*record) : (other ? other(text) : void(), true);
        line.clear();
        return goes_on;
    };
    while (fgets(piece, sizeof(piece), file.get()) != nullptr) {
        const bool begins =
            lines == RecordLines::kEach || piece[0] == '/' || line.size() >= 2 * kMaxLine;
        if (begins && !give()) {
            return true;
        }
        line += piece;
    }
    return std::ferror(file.get()) == 0 && (give(), true);
}

}  // namespace peltexctl
