// The kinds of task: how people name them, what the library reads for each, and what each takes and
// brings.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "task/tree_walk.h"

namespace peltexctl {

struct TaskRequest {
    std::string subcommand;
    std::string kind;
    std::string source;
    std::string destination;
    std::string uid = "0";
    std::string se_info = "default";
    std::optional<std::string> slice_size;  // MiB; 100 without
    std::string take;  // where the slices of a split backup go; empty: they stay
    bool no_verify = false;
    bool force = false;
    bool replace = false;
    bool consume = false;
    bool sums = false;
};

// What the entries are read from that a task is to bring.
enum class Source {
    kFile,
    kTree,
    kList,     // the records of a brief, one for each file to copy
    kSearch,   // include and exclude rules
    kRecords,  // the records of a copy, and the copy where there are none
    kSet,      // an archive, or a set of slices by its check file
};

// Where they are afterwards.
enum class Result { kTree, kRecords, kSet };

struct TaskKind {
    const char* subcommand;
    const char* kind;  // empty for a subcommand of one kind
    const char* help;
    Source source;
    Result result;
    const char* result_path;  // a pattern
    Rules leaves_out;

    // The command line for the library, to which SRC is `source_path`.
    std::string Command(const TaskRequest& request, const std::string& source_path) const;
    std::string SourcePath(const TaskRequest& request) const;
    // The directory that the entries are in, or the file that lists or holds them.
    std::string ResultPath(const TaskRequest& request) const;

    // Which permission bits come along.
    Modes modes() const {
        return HasArchive()                                               ? Modes::kArchived
               : source == Source::kRecords || result == Result::kRecords ? Modes::kAll
                                                                          : Modes::kNone;
    }
    bool Is(std::string_view command_name, std::string_view kind_name) const {
        return subcommand == command_name && kind == kind_name;
    }
    bool IsBrief() const { return result == Result::kRecords; }
    bool IsMove() const { return Is("move", ""); }
    // A backup that hands over slices and waits for the client after each.
    bool HandsOver() const { return Is("backup", "split"); }
    bool RestoresSlices() const { return Is("restore", "split"); }
    // An archive is written or unpacked, which an abort stops.
    bool HasArchive() const { return Unpacks() || result == Result::kSet; }
    // A restore of an archive unpacks into a directory that has to be there.
    bool Unpacks() const { return source == Source::kSet; }
};

// The kinds of a subcommand, in the order to show them.
std::vector<const TaskKind*> KindsOf(const std::string& subcommand);

// The request's row, after a look at every word. REQUIRES: the kind is one of the subcommand's.
// Throws Failure.
const TaskKind& CheckRequest(const TaskRequest& request);

// In MiB.
int SliceSizeOf(const TaskRequest& request);

// The file that a file task writes.
std::string TargetFile(const TaskRequest& request);

}  // namespace peltexctl
