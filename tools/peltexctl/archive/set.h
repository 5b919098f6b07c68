// What makes up an archive: one file, or the slices that a check file lists with their sizes, one
// NAME|SIZE per line, beside which they lie.
//
// Not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace peltexctl {

// Something that keeps an archive from coming back as it was, or may.
struct Finding {
    enum class Severity {
        kFault,
        // It cannot be told from a fault by the archive alone, but by the directory it was made of.
        kSuspicion,
        kWarning,
    };

    Severity severity;
    std::string slice;  // the file's name; empty when it is about no single one
    std::string entry;  // the entry's name; empty when it is about no single one
    std::string message;
};

using FindingSink = std::function<void(const Finding&)>;

struct ArchiveSet {
    enum class Kind {
        kArchive,
        kSlice,  // one slice without its set: a name that ends in a dot and a number
        kCheckFile,
    };

    struct Slice {
        std::string path;
        std::string name;
        uint64_t listed_size;  // 0 for a file that no check file lists
    };

    Kind kind = Kind::kArchive;
    std::string path;
    std::vector<Slice> slices;

    // A whole archive must end properly; a restore of slices takes less.
    bool has_slices() const { return kind != Kind::kArchive; }
};

// Finds out by its content what the file at `path` is. Faults in the lines of a check file go to
// `sink`. Returns false, with one line in `error`, when the file cannot be read.
bool OpenArchiveSet(const std::string& path, const FindingSink& sink, ArchiveSet* set,
                    std::string* error);

}  // namespace peltexctl
