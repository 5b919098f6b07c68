// A walk over a tree that takes what a task of some kind takes, and tells what it leaves out.
//
// Memory grows with the depth of the tree alone. Nothing is followed or changed.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "archive/tally.h"
#include "task/directory.h"

namespace peltexctl {

// The reasons for which a kind of task leaves entries out: one bit for each.
using Rules = unsigned;
constexpr Rules Bit(LeftOut reason) {
    return Rules{1} << static_cast<unsigned>(reason);
}

using EntrySink = std::function<void(const TallyEntry& entry)>;

// Hears of what a task takes and of what it leaves out.
struct TreeSink {
    EntrySink take;
    std::function<void(LeftOut reason, std::string_view path)> leave_out;
};

// Which permission bits a kind of task brings.
enum class Modes { kNone, kAll, kArchived };

struct WalkOptions {
    Rules rules;
    Modes modes;
    std::optional<FileId> own = {};  // the archive that the task writes
    size_t begin = 0;                // of entries' paths in the whole ones; 0: below the top
    // Further entries of the top directory that are passed over without a word.
    std::function<bool(const std::string& path)> is_excluded = {};
    // 0 or 1: of two walks that together meet every entry, each on a thread of its own.
    std::optional<size_t> half = {};
};

// Walks the directory `top`, in the order of the file system, a directory before its entries.
// Returns false when `top` cannot be read.
bool WalkTree(const std::string& top, const WalkOptions& options, const TreeSink& sink);

// An entry as its status shows it, without its link's target.
TallyEntry EntryOf(std::string_view path, const struct stat& status, Modes modes);

// The target of the link `name` of a directory, until this thread's next call.
std::string_view ReadLink(int directory, const char* name);

}  // namespace peltexctl
