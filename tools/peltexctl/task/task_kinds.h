// The kinds of task: how people name them and what the library reads for each.
#pragma once

#include <string>
#include <vector>

#include "task/tree_counts.h"

namespace peltexctl {

struct TaskRequest {
    std::string subcommand;
    std::string kind;
    std::string source;
    std::string destination;
    std::string uid = "0";
    std::string se_info = "default";
    std::string slice_size = "100";  // MiB
    std::string take;                // where the slices of a split backup go; empty: they stay
    bool no_verify = false;
};

struct TaskKind {
    // What a task writes or, when it restores, reads.
    enum class Form {
        kCopy,     // of a file or tree; the library brings it to its end, abort or no abort
        kList,     // a file of records, with or without copies of what it lists; the same
        kArchive,  // one archive
        kSlices,   // slices and their check file: a backup hands them over and waits for the
                   // client after each, a restore removes each when it has unpacked it
    };

    const char* subcommand;
    const char* kind;  // empty for a subcommand of one kind
    const char* help;
    Form form;
    // The command line for the library.
    std::string (*compose)(const TaskKind& kind, const TaskRequest& request);
    // The file or tree that is copied or packed; empty where the request does not tell.
    std::string (*content)(const TaskRequest& request);
    // The archive, check file or list that is written or restored; empty for a copy.
    std::string (*file)(const TaskRequest& request);

    bool IsBackup() const { return std::string(subcommand) == "backup"; }
    bool IsRestore() const { return std::string(subcommand) == "restore"; }
    bool IsBrief() const { return std::string(subcommand) == "brief"; }
    bool HasArchive() const { return form == Form::kArchive || form == Form::kSlices; }
    bool HandsOver() const { return IsBackup() && form == Form::kSlices; }
    // A restore of an archive unpacks into a directory that has to be there.
    bool Unpacks() const { return IsRestore() && HasArchive(); }
    // Whether the bytes in the library's progress are those of the content.
    bool CountsBytes() const { return !Unpacks() && !IsBrief(); }
    // How a tree's entries are chosen.
    TreeRules Rules() const;
};

// The kinds of a subcommand, in the order to show them.
std::vector<const TaskKind*> KindsOf(const std::string& subcommand);

// The request's row, after a look at every word. REQUIRES: the kind is one of the subcommand's. On
// failure returns nothing and one line in `error`, which says what is wrong with the request.
const TaskKind* CheckRequest(const TaskRequest& request, std::string* error);

}  // namespace peltexctl
