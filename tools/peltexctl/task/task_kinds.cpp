// Tested by tests/peltexctl/test_command_line.py.
#include "task/task_kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "ui/text.h"

namespace peltexctl {

namespace {

// The library takes other sizes too: from 2048 on they overflow, and such a backup never ends.
constexpr int kLargestSlice = 2047;

// The last component of a path, with the slash before it.
std::string LastComponent(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(slash);
}

std::string WithoutTrailingSlash(const std::string& path) {
    return !path.empty() && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
}

std::string Compose(const char* option, const TaskKind& kind, const TaskRequest& request,
                    const std::string& destination) {
    return fmt::format("{} {} {} {} {} {}", kind.subcommand, option, request.source, destination,
                       request.se_info, *ParseInt(request.uid));
}

std::string PlainCommand(const TaskKind& kind, const TaskRequest& request) {
    return Compose(kind.kind, kind, request, request.destination);
}

// The library does not look at the option of a move, which has to be there all the same.
std::string MoveCommand(const TaskKind& kind, const TaskRequest& request) {
    return Compose("dir", kind, request, request.destination);
}

std::string BriefCommand(const TaskKind& kind, const TaskRequest& request) {
    return fmt::format("get_brief {} {} {} {} {}", kind.kind, request.source, request.destination,
                       request.se_info, *ParseInt(request.uid));
}

std::string SplitCommand(const TaskKind& /*kind*/, const TaskRequest& request) {
    return fmt::format("backup split {} {} {} {} {}", request.source, request.destination,
                       *ParseInt(request.slice_size), request.se_info, *ParseInt(request.uid));
}

// The library extracts into the parent of the path that it is given, and relabels that path.
std::string RestoreSplitCommand(const TaskKind& kind, const TaskRequest& request) {
    return Compose(kind.kind, kind, request, WithoutTrailingSlash(request.destination) + "/.");
}

std::string Source(const TaskRequest& request) {
    return request.source;
}

// A directory's backup lies under the directory's own name, which a restore takes from where it
// restores to.
std::string NamedInSource(const TaskRequest& request) {
    return request.source + LastComponent(request.destination);
}

std::string Nothing(const TaskRequest& /*request*/) {
    return "";
}

std::string WholeArchive(const TaskRequest& request) {
    return request.destination + LastComponent(request.source) + ".tar";
}

// Beside its slices.
std::string CheckFile(const TaskRequest& request) {
    return WithoutTrailingSlash(request.destination) +
           LastComponent(WithoutTrailingSlash(request.source)) + ".tar.txt";
}

// A backup by list writes its copies beside their permission records.
std::string ListOfCopies(const TaskRequest& request) {
    return request.destination + LastComponent(request.destination) + ".txt";
}

std::string Destination(const TaskRequest& request) {
    return request.destination;
}

using Form = TaskKind::Form;

constexpr TaskKind kKinds[] = {
    {"backup", "file", "one file into the directory DEST", Form::kCopy, PlainCommand, Source,
     Nothing},
    {"backup", "dir", "a directory into DEST/NAME, with its permission record DEST/NAME.txt",
     Form::kCopy, PlainCommand, Source, Nothing},
    {"backup", "tar", "a directory into the archive DEST/NAME.tar", Form::kArchive, PlainCommand,
     Source, WholeArchive},
    {"backup", "split",
     "a directory into the slices DEST/NAME.tar.0, .1, ... and the check file DEST/NAME.tar.txt",
     Form::kSlices, SplitCommand, Source, CheckFile},
    {"backup", "byfile", "what the brief SRC lists, into DEST/NAME", Form::kList, PlainCommand,
     Nothing, ListOfCopies},
    {"restore", "file", "the file SRC to DEST", Form::kCopy, PlainCommand, Source, Nothing},
    {"restore", "dir", "DEST from its backup in SRC: SRC/NAME and SRC/NAME.txt", Form::kCopy,
     PlainCommand, NamedInSource, Nothing},
    {"restore", "tar", "DEST from the archive SRC", Form::kArchive, PlainCommand, Nothing, Source},
    {"restore", "split",
     "DEST from the slices that the check file SRC lists; they are removed when all is there",
     Form::kSlices, RestoreSplitCommand, Nothing, Source},
    {"brief", "dir", "what the directory SRC holds", Form::kList, BriefCommand, Nothing,
     Destination},
    {"brief", "byfile", "what the search file SRC asks for", Form::kList, BriefCommand, Nothing,
     Destination},
    {"move", "", "a directory's content into DEST", Form::kCopy, MoveCommand, Source, Nothing},
};

bool IsOneWord(const std::string& text) {
    return !text.empty() && text.find(' ') == std::string::npos;
}

bool IsSliceSize(const std::string& text) {
    const std::optional<int> size = ParseInt(text);
    return size && *size >= 1 && *size <= kLargestSlice;
}

bool IsUid(const std::string& text) {
    const std::optional<int> uid = ParseInt(text);
    return uid && *uid >= 0;
}

}  // namespace

TreeRules TaskKind::Rules() const {
    if (HasArchive()) {
        return TreeRules::kPack;
    }
    return IsBackup() && std::string(kind) == "dir" ? TreeRules::kCopyOfPackage : TreeRules::kCopy;
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

const TaskKind* CheckRequest(const TaskRequest& request, std::string* error) {
    const std::vector<const TaskKind*> kinds = KindsOf(request.subcommand);
    const auto row = std::find_if(kinds.begin(), kinds.end(), [&request](const TaskKind* kind) {
        return kind->kind == request.kind;
    });
    for (const std::string* word : {&request.source, &request.destination, &request.se_info}) {
        if (!IsOneWord(*word)) {
            *error = fmt::format(
                "\"{}\" cannot be sent: a word of a command is not empty and holds no blank; "
                "rename "
                "it or reach it through a link",
                *word);
            return nullptr;
        }
    }
    if (!IsUid(request.uid)) {
        *error = fmt::format("--uid: \"{}\" is no number from 0 to 2147483647", request.uid);
        return nullptr;
    }
    if (!IsSliceSize(request.slice_size)) {
        *error = fmt::format("--slice-size: \"{}\" is no number from 1 to {}", request.slice_size,
                             kLargestSlice);
        return nullptr;
    }
    return *row;
}

}  // namespace peltexctl
