// The entries of an archive or of a set of slices, in order, a cut file once with its whole size.
//
// Not thread-safe. Memory is constant.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "archive/reader.h"
#include "archive/set.h"

namespace peltexctl {

using EntryVisitor = std::function<void(const ArchiveEntry&)>;

// Makes one entry of the parts of a file.
class PartJoiner {
  public:
    // Outside a set, parts are given as they are. `visit` must outlive the joiner.
    PartJoiner(const ArchiveSet& set, const EntryVisitor& visit)
        : joins_(set.is_check_file()), visit_(visit) {}

    // Every entry of every slice, in order, and then Finish(). `is_first` of its slice.
    void Take(const ArchiveEntry& entry, bool is_first);
    void Finish();

  private:
    const bool joins_;
    const EntryVisitor& visit_;
    std::optional<ArchiveEntry> cut_;  // more of it may follow
};

// Gives each entry to `show`, and to `sink` a fault for each slice that does not end as it should.
void ListSet(const ArchiveSet& set, const FindingSink& sink, const EntryVisitor& show);

// A type in words, such as "hard link"; empty for a file, link or directory.
const char* TypeName(char type);

// One line as `tar tv` writes it, and one JSON object.
std::string EntryAsText(const ArchiveEntry& entry);
std::string EntryAsJson(const ArchiveEntry& entry);

}  // namespace peltexctl
