// Tested by tests/client/verdicts.md and peltexctl.md.
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "archive/set.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using namespace android::installd;
constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kFirstApplicationUid = 10000;
constexpr size_t kLongestComponent = 255;
constexpr size_t kMostDoubtful = 10000;

std::string_view ParentOf(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// Gives what a restore makes of an entry to `visit`, but for the destination itself.
EntryVisitor ForTally(const std::function<void(const TallyEntry&)>& visit) {
    return [visit](const ArchiveEntry& entry) {
        const char type = entry.IsFile() ? static_cast<char>(TYPE_REGULAR) : entry.type;
        if (entry.IsRestored() && !entry.path.empty()) {
            visit({entry.path, type, entry.size, entry.link, ArchivedMode(type, entry.mode)});
        }
    };
}

constexpr std::hash<std::string_view> kHashOf{};
const FindingSink kIgnore = [](const Finding&) {};

// Which paths came before, in a fixed amount of memory. A Bloom filter: what was added is found for
// certain, and one in some hundred of the others, which are looked at a second time.
class PathFilter {
  public:
    // For an archive of so many bytes: an entry takes one block of it at least.
    explicit PathFilter(uint64_t archive_size)
        : words_(std::clamp<uint64_t>(archive_size / 1024, size_t{1} << 10, size_t{1} << 18)) {}

    static constexpr char kAny = '\0';

    // Whether it may have been there as an entry of this type; kAny without regard to it.
    bool Meet(std::string_view path, char type, bool adds = false) {
        const uint64_t hash =
            kHashOf(path) + static_cast<unsigned char>(type) * uint64_t{0x9E3779B97F4A7C15};
        bool is_there = true;
        for (uint64_t i = 0; i < 4 && (is_there || adds); i++) {
            const uint64_t bit = hash + i * ((hash >> 32) | 1);
            uint64_t& word = words_[bit / 64 % words_.size()];
            const uint64_t mask = uint64_t{1} << (bit % 64);
            is_there = is_there && (word & mask) != 0;
            word |= adds ? mask : 0;
        }
        return is_there;
    }

  private:
    std::vector<uint64_t> words_;
};

class SetVerifier {
  public:
    SetVerifier(const ArchiveSet& set, const std::string& destination, const FindingSink& sink)
        : set_(set), destination_((destination.empty() ? "." : destination) + "/"), sink_(sink) {}

    Tally Run() {
        if (set_.finding()) {
            sink_(*set_.finding());
        }
        for (size_t i = 0; i < set_.size(); i++) {
            slice_ = set_.NameOf(i);
            begin_known_ = CheckSlice(set_.OpenSlice(i), set_.SizeOf(i)) && set_.is_check_file();
            if (!begin_known_) {
                open_part_.reset();
            }
        }
        joiner_.Finish();
        if (open_part_) {
            sink_(*open_part_);
        }
        CheckLastSliceFull();
        LookAgain();
        return tally_;
    }

  private:
    void Warn(const std::string& entry, const std::string& message) {
        sink_({Severity::kWarning, slice_, entry, message});
    }
    void Fault(const std::string& entry, const std::string& message) {
        sink_({Severity::kFault, slice_, entry, message});
    }

    // Returns whether its end blocks were reached.
    bool CheckSlice(const ArchiveFile& file, uint64_t listed_size) {
        if (!file.fault().empty()) {
            Fault("", file.fault());
            return false;
        }
        const bool has_size = file.size() == listed_size && file.size() % kBlockSize == 0;
        if (file.size() != listed_size) {
            Fault("",
                  fmt::format("has {} bytes, the check file says {}", file.size(), listed_size));
        } else if (!has_size) {
            Fault("", fmt::format("has {} bytes, no multiple of 512: a restore takes nothing of it",
                                  file.size()));
        }
        ArchiveReader reader(file, destination_.size());
        ArchiveEntry entry;
        for (is_first_ = true; reader.Next(&entry); is_first_ = false) {
            CheckEntry(entry);
            CheckPart(file, entry);
            joiner_.Take(entry, is_first_);
        }
        // What of the end follows from such a size goes without saying.
        if (has_size && (reader.has_end_blocks() || entry.misread != "size")) {
            CheckEnd(file, reader, entry);
        }
        return reader.has_end_blocks();
    }

    void CheckEntry(const ArchiveEntry& entry) {
        if (!entry.misread.empty()) {
            Fault(entry.name, fmt::format("a restore and other programs read its {} differently",
                                          entry.misread));
        }
        if (!entry.IsRestored()) {
            // These two hold nothing that could come back.
            const bool is_needless = entry.type == 'g' || entry.type == 'V';
            sink_({is_needless ? Severity::kWarning : Severity::kFault, slice_, entry.name,
                   fmt::format("a restore passes over this {}", WordsOf(entry.type).name)});
        } else if (const char* const fault = FaultOfPlace(entry); fault != nullptr) {
            Fault(entry.name, fault);
        } else if (!entry.path.empty()) {
            Remember(entry);
        }
        // Owners from the first application's on become the one that a restore is for.
        if (entry.IsFile() && !entry.Continues() && (entry.mode & S_ISUID) != 0 &&
            entry.uid < kFirstApplicationUid) {
            Warn(entry.name, fmt::format("is a set-user-id file of uid {}", entry.uid));
        }
    }

    // Why an entry does not get where it should: what no file system takes, what a restore passes
    // over, what lies outside the destination; null where nothing is wrong.
    const char* FaultOfPlace(const ArchiveEntry& entry) const {
        const bool is_directory = entry.type == TYPE_DIRECTORY;
        std::string_view last = entry.name;
        last.remove_suffix(is_directory && EndsWith(last, "/") ? 1 : 0);
        last.remove_prefix(last.rfind('/') + 1);
        if (last == "..") {
            return "leaves the directory to be restored";
        }
        if (entry.path.empty() ? !is_directory : last.empty() || last == ".") {
            return "is no name that a restore can make something of";
        }
        if (entry.type == TYPE_SYMLINK && entry.link.empty()) {
            return "a link without a target, which no file system takes";
        }
        for (std::string_view up = entry.path; up.size() > kLongestComponent; up = ParentOf(up)) {
            if (up.size() - (up.rfind('/') + 1) > kLongestComponent) {
                return "no file system takes a component of more than 255 bytes";
            }
        }
        const bool is_passed_over =
            entry.name.find("tinker/") != std::string::npos &&
            (destination_ + entry.name).find("/com.tencent.mm/tinker/") != std::string::npos;
        return is_passed_over ? "lies in a directory that a restore passes over" : nullptr;
    }

    void Remember(const ArchiveEntry& entry) {
        bool may_go_through_link = false;
        for (std::string_view up = entry.path; has_links_ && !up.empty(); up = ParentOf(up)) {
            if (seen_.Meet(up, TYPE_SYMLINK)) {
                may_go_through_link = true;
                LookAgainFor(up);
            }
        }
        // A restore makes one directory above a file, with what is known: the file's own mode.
        const std::string_view parent = ParentOf(entry.path);
        if (!may_go_through_link && set_.kind() != ArchiveSet::Kind::kSlice && !parent.empty() &&
            !seen_.Meet(parent, TYPE_DIRECTORY)) {
            Fault(entry.name,
                  "no entry in front of it is its directory: that comes back otherwise, or not");
        }
        if (seen_.Meet(entry.path, PathFilter::kAny, true) && !entry.Continues()) {
            LookAgainFor(entry.path);
        }
        if (!entry.IsFile()) {
            has_links_ = has_links_ || entry.type == TYPE_SYMLINK;
            seen_.Meet(entry.path, entry.type, true);
        }
    }

    void LookAgainFor(std::string_view path) {
        if (doubtful_.size() <= kMostDoubtful) {
            doubtful_.emplace(kHashOf(path), kNotMet);
        }
    }

    // Reads the entries once more for the paths that may have come before.
    void LookAgain() {
        slice_.clear();
        if (!doubtful_.empty()) {
            VisitEntries(set_, kIgnore, [this](const ArchiveEntry& entry) { LookAgainAt(entry); });
        }
        if (doubtful_.size() > kMostDoubtful) {
            Warn("", "too many entries to tell whether a name is there twice");
        }
    }

    void LookAgainAt(const ArchiveEntry& entry) {
        if (!entry.IsRestored()) {
            return;
        }
        // A link itself replaces one of its name; all else is written through it.
        const bool is_link = entry.type == TYPE_SYMLINK;
        bool is_through = false;
        for (std::string_view up = is_link ? ParentOf(entry.path) : entry.path;
             !is_through && !up.empty(); up = ParentOf(up)) {
            const auto row = doubtful_.find(kHashOf(up));
            is_through = row != doubtful_.end() && row->second == TYPE_SYMLINK;
            if (is_through) {
                Fault(entry.name, fmt::format("goes through the link {} of the archive", up));
            }
        }
        const auto own = doubtful_.find(kHashOf(entry.path));
        if (own == doubtful_.end()) {
            return;
        }
        if (own->second != kNotMet && !is_through && !entry.Continues()) {
            Fault(entry.name, "is there again: this one comes back, those before it do not");
        }
        if (own->second != TYPE_SYMLINK) {
            own->second = entry.type;
        }
    }

    void CheckPart(const ArchiveFile& file, const ArchiveEntry& entry) {
        if (set_.kind() == ArchiveSet::Kind::kArchive &&
            (entry.Continues() || entry.FillsSlice())) {
            return Fault(entry.name, "one part of a cut file: the others lie in other slices");
        }
        const bool goes_on =
            open_part_ && is_first_ && entry.Continues() && open_part_->entry == entry.name;
        if (!goes_on && entry.Continues() && (begin_known_ || !is_first_)) {
            Fault(entry.name, "continues a file that does not go on here");
        } else if (open_part_ && !is_first_) {
            // A first part may be a file that ended just where its slice did, or one whose header
            // promises too much, so that what lies behind its content passes for it.
            Fault(open_part_->entry,
                  "promises more content than there is: its slice goes on behind");
        } else if (open_part_ && !goes_on && open_part_->severity != Severity::kWarning) {
            sink_(*open_part_);
        }
        open_part_.reset();
        const auto open = [&](Severity severity, const char* message) {
            open_part_ = Finding{severity, slice_, entry.name, message};
        };
        if (entry.type == TYPE_MIDDLE_PART) {
            open(Severity::kFault, "its next part is not there");
        } else if (entry.FillsSlice() && HasOddEnd(file, entry)) {
            open(Severity::kSuspicion,
                 "ends just where its slice does, in bytes that may not be its own");
        } else if (entry.FillsSlice()) {
            open(Severity::kWarning,
                 "ends just where the last slice does: a further one may be missing");
        }
    }

    // Whether the end of a part may be something else's: zeros that fill its last block, or entries
    // behind it. No path sets aside so much that more of them could be taken for the part's own.
    static bool HasOddEnd(const ArchiveFile& file, const ArchiveEntry& entry) {
        constexpr uint64_t kMaxTaken = 4 * kBlockSize;
        const uint64_t end = entry.data_offset + entry.size;
        char last = 'x';
        bool odd = file.ReadAt(end - 1, &last, 1) && last == '\0';
        for (uint64_t i = kBlockSize; i <= std::min(entry.size, kMaxTaken); i += kBlockSize) {
            odd = odd || IsHeaderAt(file, end - i);
        }
        return odd;
    }

    void CheckEnd(const ArchiveFile& file, const ArchiveReader& reader, const ArchiveEntry& entry) {
        const uint64_t offset = reader.end_offset();
        if (reader.blames_entry()) {
            return Fault(entry.name, reader.fault());
        }
        if (!reader.has_end_blocks()) {
            return Fault("", fmt::format("{}, at {}{}", reader.fault(), offset,
                                         entry.name.empty() ? "" : ", behind " + entry.name));
        }
        // Others fill up behind the end blocks, with zeros. All else was something once: a header
        // that is overwritten with zeros ends an archive early.
        if (const uint64_t used = file.FindNonZero(offset); used < file.size()) {
            Fault("", fmt::format("ends at {}, and what follows at {} does not come back", offset,
                                  used));
        }
    }

    // A slice that is not the last is closed by the write that makes it reach the slice size. When
    // the last one is as full, another was begun, which is dropped if it holds empty files alone.
    void CheckLastSliceFull() {
        uint64_t slice_size = INT64_MAX;
        for (size_t i = 0; i + 1 < set_.size(); i++) {
            slice_size = std::min(slice_size, set_.SizeOf(i) / kMiB * kMiB);
        }
        if (set_.size() > 1 && set_.SizeOf(set_.size() - 1) >= slice_size + kEndBlocksSize) {
            Warn("", "the last slice is full: empty files behind it, if there were any, are lost");
        }
    }

    const ArchiveSet& set_;
    const std::string destination_;
    const FindingSink& sink_;
    Tally tally_;
    PartJoiner joiner_{set_, ForTally([this](const TallyEntry& entry) { tally_.Add(entry); })};

    std::string slice_;                        // the name of the one at hand
    bool is_first_ = true;                     // the next entry is its slice's first
    bool begin_known_ = set_.is_check_file();  // the slice before this one was read to its end
    std::optional<Finding> open_part_;         // what to tell of it when nothing goes on with it

    PathFilter seen_{set_.TotalSize()};
    static constexpr char kNotMet = '\0';
    // By their hashes, the paths to look for again, and what entry was met there.
    std::unordered_map<uint64_t, char> doubtful_;
    bool has_links_ = false;
};

}  // namespace

Tally VerifySet(const ArchiveSet& set, const std::string& destination, const FindingSink& sink) {
    return SetVerifier(set, destination, sink).Run();
}

void VisitRestored(const ArchiveSet& set, const std::function<void(const TallyEntry&)>& visit) {
    VisitEntries(set, kIgnore, ForTally(visit));
}

}  // namespace peltexctl
