// Tested by tests/client/peltexctl.md.
#include "task/task_kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <tuple>

#include "ui/exit_code.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// The library takes other sizes too: from 2048 on they overflow, and such a backup never ends.
constexpr int kLargestSlice = 2047;
constexpr int kDefaultSlice = 100;

// A row's pattern with the request's words in it. {name} is what SRC is called, {app} what DEST is,
// {target} the directory that a file task writes to.
std::string Fill(const char* pattern, const TaskRequest& request) {
    return fmt::format(
        fmt::runtime(pattern), fmt::arg("src", request.source),
        fmt::arg("dest", request.destination), fmt::arg("name", NameOf(request.source)),
        fmt::arg("app", NameOf(request.destination)),
        fmt::arg("target", ParentOf(TargetFile(request))), fmt::arg("mib", SliceSizeOf(request)),
        fmt::arg("owner", fmt::format("{} {}", request.se_info, *ParseInt(request.uid))));
}

constexpr Rules kCopies = Bit(LeftOut::kDex) | Bit(LeftOut::kLink) | Bit(LeftOut::kSpecial);
constexpr Rules kPackage = kCopies | Bit(LeftOut::kLib);
constexpr Rules kPacks = Bit(LeftOut::kHardLinked) | Bit(LeftOut::kDex) | Bit(LeftOut::kSpecial) |
                         Bit(LeftOut::kTinker) | Bit(LeftOut::kOwnArchive);

// A directory's backup lies under the directory's own name, which a restore takes from where it
// restores to; a backup by list writes below a directory named like the one that it is given. A
// restore of slices extracts into the parent of the path that it is given, and relabels that path.
// The library does not look at the option of a move, which has to be there all the same.
constexpr TaskKind kKinds[] = {
    {"backup", "file", "one file into the directory DEST", "backup file {src} {dest} {owner}",
     "{src}", "{target}", Source::kFile, Result::kTree, 0, Modes::kNone},
    {"backup", "dir", "a directory into DEST/NAME, with its permission record DEST/NAME.txt",
     "backup dir {src} {dest} {owner}", "{src}", "{dest}/{name}", Source::kTree, Result::kTree,
     kPackage, Modes::kNone},
    {"backup", "tar", "a directory into the archive DEST/NAME.tar",
     "backup tar {src} {dest} {owner}", "{src}", "{dest}/{name}.tar", Source::kTree, Result::kSet,
     kPacks, Modes::kArchived},
    {"backup", "split",
     "a directory into the slices DEST/NAME.tar.0, .1, ... and the check file DEST/NAME.tar.txt",
     "backup split {src} {dest} {mib} {owner}", "{src}", "{dest}/{name}.tar.txt", Source::kTree,
     Result::kSet, kPacks, Modes::kArchived},
    {"backup", "byfile", "what the brief SRC lists, into DEST/NAME",
     "backup byfile {src} {dest} {owner}", "{src}", "{dest}/{app}", Source::kList, Result::kTree,
     kCopies, Modes::kNone},
    {"restore", "file", "the file SRC to DEST", "restore file {src} {dest} {owner}", "{src}",
     "{target}", Source::kFile, Result::kTree, 0, Modes::kNone},
    {"restore", "dir", "DEST from its backup in SRC: SRC/NAME and SRC/NAME.txt",
     "restore dir {src} {dest} {owner}", "{src}/{app}", "{dest}", Source::kRecords, Result::kTree,
     kCopies, Modes::kAll},
    {"restore", "tar", "DEST from the archive SRC", "restore tar {src} {dest} {owner}", "{src}",
     "{dest}", Source::kSet, Result::kTree, Bit(LeftOut::kTinker), Modes::kArchived},
    {"restore", "split", "DEST from the slices that the check file SRC lists",
     "restore split {src} {dest}/. {owner}", "{src}", "{dest}", Source::kSet, Result::kTree,
     Bit(LeftOut::kTinker), Modes::kArchived},
    {"brief", "dir", "what the directory SRC holds", "get_brief dir {src} {dest} {owner}", "{src}",
     "{dest}", Source::kTree, Result::kRecords, kCopies, Modes::kAll},
    {"brief", "byfile", "what the search file SRC asks for",
     "get_brief byfile {src} {dest} {owner}", "{src}", "{dest}", Source::kSearch, Result::kRecords,
     kCopies, Modes::kAll},
    {"move", "", "a directory's content into DEST", "move dir {src} {dest} {owner}", "{src}",
     "{dest}", Source::kTree, Result::kTree, kCopies, Modes::kNone},
};

bool IsInRange(const std::string& text, int least, int most) {
    const std::optional<int> number = ParseInt(text);
    return number && *number >= least && *number <= most;
}

void Expect(bool is_right, const std::string& message) {
    if (!is_right) {
        throw Failure(kUsage, message);
    }
}

}  // namespace

std::string TaskKind::Command(const TaskRequest& request) const {
    return Fill(command, request);
}

std::string TaskKind::SourcePath(const TaskRequest& request) const {
    return Fill(source_path, request);
}

std::string TaskKind::ResultPath(const TaskRequest& request) const {
    return Fill(result_path, request);
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
        Expect(!word->empty() && word->find(' ') == std::string::npos,
               fmt::format("\"{}\" cannot be sent: a word of a command is not empty and holds no "
                           "blank; rename it or reach it through a link",
                           *word));
    }
    Expect(IsInRange(request.uid, 0, INT_MAX),
           fmt::format("--uid: \"{}\" is no number from 0 to {}", request.uid, INT_MAX));
    Expect(!request.slice_size || IsInRange(*request.slice_size, 1, kLargestSlice),
           fmt::format("--slice-size: \"{}\" is no number from 1 to {}",
                       request.slice_size.value_or(""), kLargestSlice));
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
        Expect(is_right, fmt::format("{} is an option of {} only", name, owners));
    }
    const std::vector<const TaskKind*> kinds = KindsOf(request.subcommand);
    return **std::find_if(kinds.begin(), kinds.end(),
                          [&request](const TaskKind* row) { return request.kind == row->kind; });
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
