// What makes up an archive: one file, or the slices that a check file lists with their sizes, one
// NAME|SIZE per line, beside which they lie. Everything is opened through the directory that was
// found first, and slices never through a link.
//
// Not thread-safe. Memory grows by a number per slice.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/reader.h"
#include "archive/tally.h"
#include "base/file_handles.h"

namespace peltexctl {

// A suspicion cannot be told from a fault by the archive alone, but by what it was made of.
enum class Severity { kFault, kSuspicion, kWarning };

// Something that keeps an archive from coming back as it was, or may.
struct Finding {
    Severity severity;
    std::string slice;  // names; empty when it is about no single one
    std::string entry;
    std::string message;
};

// "SLICE: ENTRY: MESSAGE", not escaped.
std::string DescribeFinding(const Finding& finding);

using FindingSink = std::function<void(const Finding&)>;

// Whether a name is that of a slice: it ends in a dot and a number.
bool NamesSlice(std::string_view name);

class ArchiveSet {
  public:
    // A slice is one without its set.
    enum class Kind { kArchive, kSlice, kCheckFile };

    // Finds out by its content what the file at `path` is, and reads a check file, once. Throws
    // Failure. `view` shows how far the slices are read, in bytes of all of them.
    ArchiveSet(const std::string& path, ProgressView* view);

    // What is wrong with a check file. With a fault in its lines it lists nothing.
    const std::optional<Finding>& finding() const { return finding_; }

    Kind kind() const { return kind_; }
    bool is_check_file() const { return kind_ == Kind::kCheckFile; }
    const std::string& path() const { return path_; }  // as it was given
    const std::string& name() const { return name_; }  // of the file itself, in its directory
    // The set's directory, open as long as this object lives.
    int directory() const { return directory_.get(); }
    // The archive, the slice, or the check file itself.
    const ArchiveFile& file() const { return file_; }

    // The slices; of an archive or a single slice, itself alone.
    size_t size() const { return ends_.size(); }
    std::string NameOf(size_t index) const;
    // In bytes, as the check file says: of one, and of all.
    uint64_t SizeOf(size_t index) const { return ends_[index] - BeginOf(index); }
    uint64_t TotalSize() const { return BeginOf(size()); }
    // It may have a fault.
    ArchiveFile OpenSlice(size_t index) const;

  private:
    uint64_t BeginOf(size_t index) const { return index == 0 ? 0 : ends_[index - 1]; }
    std::string ReadCheckFile();
    std::string TakeLine(std::string_view line);

    const std::string path_;
    const std::string name_;
    const android::installd::UniqueFd directory_;
    const ArchiveFile file_;
    ProgressView* const view_;
    Kind kind_ = Kind::kCheckFile;
    std::optional<Finding> finding_;
    std::string base_;            // slices are named BASE.0, BASE.1 and so on
    std::vector<uint64_t> ends_;  // of the slices, were they one file
};

using EntryVisitor = std::function<void(const ArchiveEntry&)>;

// Gives the entries of a set on, each cut file as one, as soon as its last part is known.
class PartJoiner {
  public:
    // Outside a set, parts are given as they are.
    PartJoiner(const ArchiveSet& set, EntryVisitor visit)
        : joins_(set.is_check_file()), visit_(std::move(visit)) {}

    // Every entry of every slice, in order, and then Finish(). `is_first` of its slice.
    void Take(const ArchiveEntry& entry, bool is_first);
    void Finish();

  private:
    const bool joins_;
    const EntryVisitor visit_;
    std::optional<ArchiveEntry> cut_;  // more of it may follow
};

// Gives each entry to `visit`, in order, a cut file once with its whole size, and to `sink` the
// set's finding and a fault for each slice that does not end as it should.
void VisitEntries(const ArchiveSet& set, const FindingSink& sink, const EntryVisitor& visit);

// Reads a set as a restore does, and gives `sink` what would not come back whole - sizes, header
// chain, end blocks, the parts of each cut file - and what would reach where it should not: entries
// that lead out of the directory or through a link, set-user-id files. In verify.cpp, in constant
// memory. `destination` is where a restore would go, empty where that is not known: the longer its
// path, the shorter the names that come back. Returns what a restore makes.
Tally VerifySet(const ArchiveSet& set, const std::string& destination, const FindingSink& sink);

// Gives every entry that makes up the tally to `visit`, whose texts live as long as the call.
void VisitRestored(const ArchiveSet& set, const std::function<void(const TallyEntry&)>& visit);

}  // namespace peltexctl
