// Tested by tests/peltexctl/test_summaries.py.
#include "task/tree_counts.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTinkerDirectory = "/com.tencent.mm/tinker";
constexpr std::string_view kDexSuffix = ".dex";

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool IsLeftOut(const std::string& path, const struct stat& info, bool in_root, TreeRules rules) {
    if (rules == TreeRules::kPack) {
        return IsLeftOutOfArchives(path, info);
    }
    if (S_ISDIR(info.st_mode)) {
        return rules == TreeRules::kCopyOfPackage && in_root && EndsWith(path, "/lib");
    }
    return S_ISLNK(info.st_mode) || S_ISSOCK(info.st_mode) || S_ISFIFO(info.st_mode) ||
           EndsWith(path, kDexSuffix);
}

void Add(const struct stat& info, TreeCounts* counts) {
    counts->entries++;
    counts->bytes += S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0;
}

// The size that a record ends with, 0 for a directory's; nothing for a line that is no record's
// end, such as the front of a name with a line feed.
std::optional<uint64_t> SizeOfRecord(std::string_view line) {
    std::string_view fields[4];  // mode, type, size, time
    for (size_t i = 4; i-- > 0;) {
        const size_t mark = line.rfind(';');
        if (mark == std::string_view::npos) {
            return std::nullopt;
        }
        fields[i] = line.substr(mark + 1);
        line = line.substr(0, mark);
        if (fields[i].empty() ||
            fields[i].find_first_not_of("0123456789-") != std::string_view::npos) {
            return std::nullopt;
        }
    }
    return fields[1] == "0" ? std::strtoull(std::string(fields[2]).c_str(), nullptr, 10) : 0;
}

}  // namespace

bool IsLeftOutOfArchives(const std::string& path, const struct stat& info) {
    if (S_ISDIR(info.st_mode)) {
        return EndsWith(path, kTinkerDirectory);
    }
    return info.st_nlink >= 2 ||
           (S_ISREG(info.st_mode) && path.size() > kDexSuffix.size() && EndsWith(path, kDexSuffix));
}

std::optional<TreeCounts> CountTree(const std::string& path, TreeRules rules) {
    struct stat info = {};
    TreeCounts counts;
    if (stat(path.c_str(), &info) != 0) {
        return std::nullopt;
    }
    if (!S_ISDIR(info.st_mode)) {
        Add(info, &counts);
        return counts;
    }
    std::error_code error;
    for (fs::recursive_directory_iterator entry(path, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string& name = entry->path().native();
        if (lstat(name.c_str(), &info) != 0 || IsLeftOut(name, info, entry.depth() == 0, rules)) {
            entry.disable_recursion_pending();
        } else {
            Add(info, &counts);
        }
    }
    return error ? std::nullopt : std::optional(counts);
}

std::optional<TreeCounts> CountRecords(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    TreeCounts counts;
    std::string line;
    while (std::getline(file, line)) {
        if (const std::optional<uint64_t> size = SizeOfRecord(line)) {
            counts.entries++;
            counts.bytes += *size;
        }
    }
    return file.eof() ? std::optional(counts) : std::nullopt;
}

}  // namespace peltexctl
