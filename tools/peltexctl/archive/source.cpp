// VerifyAgainstSource(): what an archive alone cannot show. Tested by
// tests/peltexctl/test_archives.py.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "archive/verify.h"
#include "ui/text.h"
#include "task/tree_counts.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;
using namespace android::installd;
using Severity = Finding::Severity;

// An entry that the packer stores, and what came of it.
struct Source {
    char type;
    uint64_t size;
    time_t modified;
    int64_t changed;  // nanoseconds since the epoch
    bool found = false;
    int64_t packed_modified = 0;  // as the header has it
    uint64_t restored_size = 0;
    std::string link;
};

class SourceComparison {
  public:
    SourceComparison(const ArchiveSet& set, const std::string& directory, int64_t packing_began,
                     const FindingSink& sink)
        : set_(set), packing_began_(packing_began), sink_(sink), root_(directory) {
        if (!root_.empty() && root_.back() == '/') {
            root_.pop_back();
        }
    }

    VerifyCounts Run() {
        FindOwnFiles();
        Walk();
        const VerifyCounts counts = VerifySet(
            set_,
            [this](const Finding& finding) {
                if (finding.severity != Severity::kSuspicion) {
                    sink_(finding);
                }
            },
            [this](const ArchiveEntry& entry) { TakeEntry(entry); });
        for (const auto& [name, source] : sources_) {
            Compare(name, source);
        }
        return counts;
    }

  private:
    void Tell(Severity severity, const std::string& entry, const std::string& message) {
        sink_({severity, "", entry, message});
    }

    // The packer leaves out the archive that it writes.
    void FindOwnFiles() {
        struct stat info = {};
        for (const ArchiveSet::Slice& slice : set_.slices) {
            if (stat(slice.path.c_str(), &info) == 0) {
                own_files_.emplace(info.st_dev, info.st_ino);
            }
        }
    }

    void Walk() {
        std::error_code error;
        for (fs::recursive_directory_iterator entry(root_, error), end; !error && entry != end;
             entry.increment(error)) {
            struct stat info = {};
            const std::string path = entry->path();
            if (lstat(path.c_str(), &info) != 0 || IsFiltered(path, info)) {
                entry.disable_recursion_pending();
            } else {
                AddSource(path.substr(root_.size() + 1), info);
            }
        }
        if (error) {
            Tell(Severity::kFault, "",
                 fmt::format("cannot read the source directory {}: {}", root_, error.message()));
        }
    }

    bool IsFiltered(const std::string& path, const struct stat& info) const {
        return IsLeftOutOfArchives(path, info) || own_files_.count({info.st_dev, info.st_ino}) != 0;
    }

    void AddSource(const std::string& name, const struct stat& info) {
        const auto size = static_cast<uint64_t>(info.st_size);
        const auto add = [this, &info](const std::string& stored, char type, uint64_t bytes) {
            Source source{};
            source.type = type;
            source.size = bytes;
            source.modified = info.st_mtime;
            source.changed = int64_t{info.st_ctim.tv_sec} * 1000000000 + info.st_ctim.tv_nsec;
            sources_.emplace(stored, std::move(source));
        };
        if (S_ISREG(info.st_mode)) {
            add(name, TYPE_REGULAR, size);
        } else if (S_ISDIR(info.st_mode)) {
            add(name + "/", TYPE_DIRECTORY, 0);
        } else if (S_ISLNK(info.st_mode)) {
            add(name, TYPE_SYMLINK, 0);
        }
    }

    void TakeEntry(const ArchiveEntry& entry) {
        const auto found = sources_.find(entry.name);
        const char type = entry.IsFile() ? static_cast<char>(TYPE_REGULAR) : entry.type;
        if (found == sources_.end() || found->second.type != type) {
            Tell(Severity::kWarning, entry.name, "is not in the source directory, or no longer so");
            return;
        }
        Source& source = found->second;
        source.found = true;
        source.packed_modified = static_cast<int64_t>(entry.mtime);
        source.restored_size =
            (entry.Continues() ? source.restored_size : 0) + (entry.IsFile() ? entry.size : 0);
        source.link = entry.link;
    }

    void Compare(const std::string& name, const Source& source) {
        if (!source.found) {
            const bool later = packing_began_ != 0 && source.changed > packing_began_;
            Tell(later ? Severity::kWarning : Severity::kFault, name,
                 later ? "is not in the set: it was made or changed while that was packed"
                       : "is not in the set");
            return;
        }
        const bool changed = source.modified > source.packed_modified;
        if (source.type == TYPE_REGULAR && source.restored_size != source.size) {
            Tell(changed ? Severity::kWarning : Severity::kFault, name,
                 fmt::format("comes back with {} bytes, the source has {}{}", source.restored_size,
                             source.size, changed ? ": it changed since it was packed" : ""));
        }
        if (source.type == TYPE_SYMLINK && source.link != ReadTarget(root_ + "/" + name)) {
            Tell(changed ? Severity::kWarning : Severity::kFault, name,
                 "comes back with another target");
        }
    }

    static std::string ReadTarget(const std::string& path) {
        std::error_code error;
        return fs::read_symlink(path, error);
    }

    const ArchiveSet& set_;
    const int64_t packing_began_;
    const FindingSink& sink_;
    std::string root_;
    std::set<std::pair<dev_t, ino_t>> own_files_;
    std::unordered_map<std::string, Source> sources_;
};

}  // namespace

VerifyCounts VerifyAgainstSource(const ArchiveSet& set, const std::string& source_directory,
                                 int64_t packing_began, const FindingSink& sink) {
    return SourceComparison(set, source_directory, packing_began, sink).Run();
}

}  // namespace peltexctl
