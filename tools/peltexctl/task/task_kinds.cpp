// Tested by tests/client/peltexctl.md.
#include "task/task_kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <tuple>

#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// The library takes other sizes too: from 2048 on they overflow, and such a backup never ends.
constexpr int kLargestSlice = 2047;
constexpr int kDefaultSlice = 100;

constexpr Rules kCopies = Bit(LeftOut::kDex) | Bit(LeftOut::kLink) | Bit(LeftOut::kSpecial);
constexpr Rules kPackage = kCopies | Bit(LeftOut::kLib);
constexpr Rules kPacks = Bit(LeftOut::kHardLinked) | Bit(LeftOut::kDex) | Bit(LeftOut::kSpecial) |
                         Bit(LeftOut::kTinker) | Bit(LeftOut::kOwnArchive);

// {name} is what SRC is called, {app} what DEST is, {target} the directory that a file task writes
// to. A directory's backup lies under the directory's own name, which a restore takes from where it
// restores to; a backup by list writes below a directory named like the one that it is given.
constexpr TaskKind kKinds[] = {
    {"backup", "file", "one file into the directory DEST", Source::kFile, Result::kTree, "{target}",
     0},
    {"backup", "dir", "a directory into DEST/NAME, with its permission record DEST/NAME.txt",
     Source::kTree, Result::kTree, "{dest}/{name}", kPackage},
    {"backup", "tar", "a directory into the archive DEST/NAME.tar", Source::kTree, Result::kSet,
     "{dest}/{name}.tar", kPacks},
    {"backup", "split",
     "a directory into the slices DEST/NAME.tar.0, .1, ... and the check file DEST/NAME.tar.txt",
     Source::kTree, Result::kSet, "{dest}/{name}.tar.txt", kPacks},
    {"backup", "byfile", "what the brief SRC lists, into DEST/NAME", Source::kList, Result::kTree,
     "{dest}/{app}", kCopies},
    {"restore", "file", "the file SRC to DEST", Source::kFile, Result::kTree, "{target}", 0},
    {"restore", "dir", "DEST from its backup in SRC: SRC/NAME and SRC/NAME.txt", Source::kRecords,
     Result::kTree, "{dest}", kCopies},
    {"restore", "tar", "DEST from the archive SRC", Source::kSet, Result::kTree, "{dest}",
     Bit(LeftOut::kTinker)},
    {"restore", "split", "DEST from the slices that the check file SRC lists", Source::kSet,
     Result::kTree, "{dest}", Bit(LeftOut::kTinker)},
    {"brief", "dir", "what the directory SRC holds", Source::kTree, Result::kRecords, "{dest}",
     kCopies},
    {"brief", "byfile", "what the search file SRC asks for", Source::kSearch, Result::kRecords,
     "{dest}", kCopies},
    {"move", "", "a directory's content into DEST", Source::kTree, Result::kTree, "{dest}",
     kCopies},
};

bool IsInRange(const std::string& text, int least, int most) {
    const std::optional<int> number = ParseInt(text);
    return number && *number >= least && *number <= most;
}

}  // namespace

// A restore of slices extracts into the parent of the path that it is given, and relabels that
// path. The library does not look at the option of a move, which has to be there all the same.
std::string TaskKind::Command(const TaskRequest& request, const std::string& source_path) const {
    return fmt::format("{} {} {} {}{} {} {}", IsBrief() ? "get_brief" : subcommand,
                       IsMove() ? "dir" : kind, source_path, request.destination,
                       RestoresSlices() ? "/."
                       : HandsOver()    ? fmt::format(" {}", SliceSizeOf(request))
                                        : "",
                       request.se_info, *ParseInt(request.uid));
}

std::string TaskKind::SourcePath(const TaskRequest& request) const {
    return request.source +
           (source == Source::kRecords ? "/" + NameOf(request.destination) : std::string());
}

std::string TaskKind::ResultPath(const TaskRequest& request) const {
    return fmt::format(fmt::runtime(result_path), fmt::arg("dest", request.destination),
                       fmt::arg("name", NameOf(request.source)),
                       fmt::arg("app", NameOf(request.destination)),
                       fmt::arg("target", ParentOf(TargetFile(request))));
}

std::vector<const TaskKind*> KindsOf(const std::string& subcommand) {
    std::vector<const TaskKind*> kinds;
    for (const TaskKind& row : kKinds) {
        if (row.subcommand == subcommand) {
            kinds.push_back(&row);
        }
    }
    return kinds;
}

const TaskKind& CheckRequest(const TaskRequest& request) {
    for (const std::string* word : {&request.source, &request.destination, &request.se_info}) {
        Ensure(!word->empty() && word->find(' ') == std::string::npos,
               fmt::format("\"{}\" cannot be sent: a word of a command is not empty and holds no "
                           "blank; rename it or reach it through a link",
                           *word),
               kUsage);
    }
    Ensure(IsInRange(request.uid, 0, INT_MAX),
           fmt::format("--uid: \"{}\" is no number from 0 to {}", request.uid, INT_MAX), kUsage);
    Ensure(!request.slice_size || IsInRange(*request.slice_size, 1, kLargestSlice),
           fmt::format("--slice-size: \"{}\" is no number from 1 to {}",
                       request.slice_size.value_or(""), kLargestSlice),
           kUsage);
    // Options of one kind of task or two.
    const std::string& kind = request.kind;
    const bool packs = kind == "split" || kind == "tar";
    for (const auto& [is_right, name, owners] : {
             std::tuple(kind == "split" || !request.slice_size, "--slice-size", "backup split"),
             std::tuple(kind == "split" || request.take.empty(), "--take", "backup split"),
             std::tuple(kind == "split" || !request.consume, "--consume", "restore split"),
             std::tuple(packs || !request.sums, "--sums", "backup split and tar"),
             std::tuple(packs || !request.replace, "--replace", "backup split and tar"),
         }) {
        Ensure(is_right, fmt::format("{} is an option of {} only", name, owners), kUsage);
    }
    return *std::find_if(std::begin(kKinds), std::end(kKinds), [&request](const TaskKind& row) {
        return row.Is(request.subcommand, request.kind);
    });
}

int SliceSizeOf(const TaskRequest& request) {
    return request.slice_size ? *ParseInt(*request.slice_size) : kDefaultSlice;
}

std::string TargetFile(const TaskRequest& request) {
    const std::optional<struct stat> status = StatOf(request.destination);
    return status && !S_ISDIR(status->st_mode) ? request.destination
                                               : request.destination + "/" + NameOf(request.source);
}

}  // namespace peltexctl
