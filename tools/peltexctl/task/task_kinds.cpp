// Tested by tests/peltexctl/test_command_line.py and test_checks.py.
#include "task/task_kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <optional>

#include "ui/exit_code.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// The library takes other sizes too: from 2048 on they overflow, and such a backup never ends.
constexpr int kLargestSlice = 2047;
constexpr int kDefaultSlice = 100;

std::string Compose(const char* command, const char* option, const TaskRequest& request) {
    return fmt::format("{} {} {} {} {} {}", command, option, request.source, request.destination,
                       request.se_info, *ParseInt(request.uid));
}

std::string PlainCommand(const TaskKind& kind, const TaskRequest& request) {
    return Compose(kind.subcommand, kind.kind, request);
}

// The library does not look at the option of a move, which has to be there all the same.
std::string MoveCommand(const TaskKind& /*kind*/, const TaskRequest& request) {
    return Compose("move", "dir", request);
}

std::string BriefCommand(const TaskKind& kind, const TaskRequest& request) {
    return Compose("get_brief", kind.kind, request);
}

std::string SplitCommand(const TaskKind& /*kind*/, const TaskRequest& request) {
    return fmt::format("backup split {} {} {} {} {}", request.source, request.destination,
                       SliceSizeOf(request), request.se_info, *ParseInt(request.uid));
}

// The library extracts into the parent of the path that it is given, and relabels that path.
std::string RestoreSplitCommand(const TaskKind& kind, const TaskRequest& request) {
    TaskRequest inside = request;
    inside.destination += "/.";
    return Compose("restore", kind.kind, inside);
}

std::string SourceItself(const TaskRequest& request) {
    return request.source;
}

std::string Destination(const TaskRequest& request) {
    return request.destination;
}

// A directory's backup lies under the directory's own name, which a restore takes from where it
// restores to.
std::string CopyOfDestination(const TaskRequest& request) {
    return request.source + "/" + NameOf(request.destination);
}

std::string CopyOfSource(const TaskRequest& request) {
    return request.destination + "/" + NameOf(request.source);
}

std::string WholeArchive(const TaskRequest& request) {
    return CopyOfSource(request) + ".tar";
}

// Beside its slices.
std::string CheckFile(const TaskRequest& request) {
    return CopyOfSource(request) + ".tar.txt";
}

// A backup by list writes its copies below a directory named like the one that it is given.
std::string ListedCopies(const TaskRequest& request) {
    return request.destination + "/" + NameOf(request.destination);
}

std::string DirectoryOfTarget(const TaskRequest& request) {
    return ParentOf(TargetFile(request));
}

constexpr Rules kCopies = Bit(LeftOut::kDex) | Bit(LeftOut::kLink) | Bit(LeftOut::kSpecial);
constexpr Rules kPackage = kCopies | Bit(LeftOut::kLib);
constexpr Rules kPacks = Bit(LeftOut::kHardLinked) | Bit(LeftOut::kDex) | Bit(LeftOut::kSpecial) |
                         Bit(LeftOut::kTinker) | Bit(LeftOut::kOwnArchive);

// What each kind leaves out of what it takes, and which modes it brings.
constexpr TaskKind kKinds[] = {
    {"backup", "file", "one file into the directory DEST", PlainCommand, Source::kFile,
     SourceItself, Result::kTree, DirectoryOfTarget, 0, Modes::kNone},
    {"backup", "dir", "a directory into DEST/NAME, with its permission record DEST/NAME.txt",
     PlainCommand, Source::kTree, SourceItself, Result::kTree, CopyOfSource, kPackage,
     Modes::kNone},
    {"backup", "tar", "a directory into the archive DEST/NAME.tar", PlainCommand, Source::kTree,
     SourceItself, Result::kSet, WholeArchive, kPacks, Modes::kArchived},
    {"backup", "split",
     "a directory into the slices DEST/NAME.tar.0, .1, ... and the check file DEST/NAME.tar.txt",
     SplitCommand, Source::kTree, SourceItself, Result::kSet, CheckFile, kPacks, Modes::kArchived},
    {"backup", "byfile", "what the brief SRC lists, into DEST/NAME", PlainCommand, Source::kList,
     SourceItself, Result::kTree, ListedCopies, kCopies, Modes::kNone},
    {"restore", "file", "the file SRC to DEST", PlainCommand, Source::kFile, SourceItself,
     Result::kTree, DirectoryOfTarget, 0, Modes::kNone},
    {"restore", "dir", "DEST from its backup in SRC: SRC/NAME and SRC/NAME.txt", PlainCommand,
     Source::kRecords, CopyOfDestination, Result::kTree, Destination, kCopies, Modes::kAll},
    {"restore", "tar", "DEST from the archive SRC", PlainCommand, Source::kSet, SourceItself,
     Result::kTree, Destination, Bit(LeftOut::kTinker), Modes::kArchived},
    {"restore", "split", "DEST from the slices that the check file SRC lists", RestoreSplitCommand,
     Source::kSet, SourceItself, Result::kTree, Destination, Bit(LeftOut::kTinker),
     Modes::kArchived},
    {"brief", "dir", "what the directory SRC holds", BriefCommand, Source::kTree, SourceItself,
     Result::kRecords, Destination, kCopies, Modes::kAll},
    {"brief", "byfile", "what the search file SRC asks for", BriefCommand, Source::kSearch,
     SourceItself, Result::kRecords, Destination, kCopies, Modes::kAll},
    {"move", "", "a directory's content into DEST", MoveCommand, Source::kTree, SourceItself,
     Result::kTree, Destination, kCopies, Modes::kNone},
};

bool IsInRange(const std::string& text, int least, int most) {
    const std::optional<int> number = ParseInt(text);
    return number && *number >= least && *number <= most;
}

// An option of one kind of task or two.
struct OwnOption {
    const char* name;
    bool (*is_given)(const TaskRequest& request);
    const char* kind;
    const char* other_kind;
    const char* owners;
};

constexpr OwnOption kOwnOptions[] = {
    {"--slice-size", [](const TaskRequest& request) { return request.slice_size.has_value(); },
     "split", "split", "backup split"},
    {"--take", [](const TaskRequest& request) { return !request.take.empty(); }, "split", "split",
     "backup split"},
    {"--sums", [](const TaskRequest& request) { return request.sums; }, "split", "tar",
     "backup split and tar"},
    {"--replace", [](const TaskRequest& request) { return request.replace; }, "split", "tar",
     "backup split and tar"},
    {"--consume", [](const TaskRequest& request) { return request.consume; }, "split", "split",
     "restore split"},
};

void Expect(bool is_right, const std::string& message) {
    if (!is_right) {
        throw Failure(kUsage, message);
    }
}

}  // namespace

bool TaskKind::Is(const char* command, const char* kind_name) const {
    return std::string_view(subcommand) == command && std::string_view(kind) == kind_name;
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
    for (const OwnOption& option : kOwnOptions) {
        Expect(!option.is_given(request) || request.kind == option.kind ||
                   request.kind == option.other_kind,
               fmt::format("{} is an option of {} only", option.name, option.owners));
    }
    const std::vector<const TaskKind*> kinds = KindsOf(request.subcommand);
    return **std::find_if(kinds.begin(), kinds.end(),
                          [&request](const TaskKind* row) { return row->kind == request.kind; });
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
