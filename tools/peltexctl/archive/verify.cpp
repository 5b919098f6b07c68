// Tested by tests/peltexctl/test_archives.py.
#include "archive/verify.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "archive/listing.h"
#include "archive/seen_paths.h"

namespace peltexctl {

namespace {

using namespace android::installd;
using Severity = Finding::Severity;

constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kFirstApplicationUid = 10000;
constexpr size_t kLongestComponent = 255;
constexpr size_t kMostDoubtful = 10000;

bool IsFull(const char* field, size_t size) {
    return std::memchr(field, '\0', size) == nullptr;
}

// The packer takes the rest of a file's last block from the size as a signed number of 32 bits, so
// that nothing fills the block behind some large files.
bool LacksPadding(const ArchiveFile& file, const ArchiveEntry& entry) {
    const uint64_t end = entry.data_offset + entry.size;
    if (!entry.IsFile() || entry.size % kBlockSize == 0 ||
        !(entry.Continues() || entry.size > INT32_MAX)) {
        return false;
    }
    char magic[5] = {};
    const bool header_follows =
        file.ReadAt(end + offsetof(tar_header, magic), magic, sizeof(magic)) &&
        std::memcmp(magic, "ustar", sizeof(magic)) == 0;
    return header_follows || file.size() - end == kEndBlocksSize;
}

std::string_view ParentOf(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// Calls `take` with `path` and each directory above it, the deepest first, until it returns true.
template <typename Take>
bool AnyUpwards(std::string_view path, const Take& take) {
    for (; !path.empty(); path = ParentOf(path)) {
        if (take(path)) {
            return true;
        }
    }
    return false;
}

// The last component of an entry's name, a directory's without the slash behind it.
std::string_view LastComponent(const ArchiveEntry& entry) {
    std::string_view name = entry.name;
    if (entry.type == TYPE_DIRECTORY && !name.empty() && name.back() == '/') {
        name.remove_suffix(1);
    }
    return name.substr(name.rfind('/') + 1);
}

TallyEntry AsTallied(const ArchiveEntry& entry, const std::string& path) {
    const char type = entry.IsFile() ? static_cast<char>(TYPE_REGULAR) : entry.type;
    return {path, type, entry.IsFile() ? entry.size : 0,
            type == TYPE_SYMLINK ? std::string_view(entry.link) : std::string_view(),
            ArchivedMode(type, entry.mode)};
}

// Gives what is restored to `visit`, without the destination itself.
EntryVisitor TalliedOf(const std::function<void(const TallyEntry&)>& visit) {
    return [&visit](const ArchiveEntry& entry) {
        const std::string path = entry.Path();
        if (entry.IsRestored() && !path.empty()) {
            visit(AsTallied(entry, path));
        }
    };
}

class SetVerifier {
  public:
    SetVerifier(const ArchiveSet& set, const std::string& destination, const FindingSink& sink)
        : set_(set),
          destination_(destination.empty() || destination.back() == '/' ? destination
                                                                        : destination + "/"),
          sink_(sink),
          begin_known_(set.is_check_file()) {}

    Verdict Run() {
        for (size_t i = 0; i < set_.size(); i++) {
            slice_ = set_.NameOf(i);
            CheckSlice(i);
        }
        joiner_.Finish();
        if (set_.is_check_file() && set_.size() > 0) {
            CloseOpenPart(true);
            CheckLastSliceFull();
        }
        LookAgain();
        return verdict_;
    }

  private:
    enum class Met { kNot, kLink, kOther };

    // A cut file's part that fills its slice, so that the next slice goes on with the file.
    struct OpenPart {
        std::string slice;
        std::string name;
        char type;
        bool odd_end;  // see HasOddEnd()
    };

    void Tell(Severity severity, const std::string& slice, const std::string& entry,
              const std::string& message) {
        verdict_.faults += severity == Severity::kFault ? 1 : 0;
        verdict_.suspicions += severity == Severity::kSuspicion ? 1 : 0;
        verdict_.warnings += severity == Severity::kWarning ? 1 : 0;
        sink_({severity, slice, entry, message});
    }
    void Warn(const std::string& entry, const std::string& message) {
        Tell(Severity::kWarning, slice_, entry, message);
    }
    void Fault(const std::string& entry, const std::string& message) {
        Tell(Severity::kFault, slice_, entry, message);
    }

    size_t NameRoom() const {
        return destination_.empty()
                   ? ArchiveReader::kLongestName
                   : kTarPathSize - 1 - std::min(destination_.size(), kTarPathSize - 1);
    }

    void CheckSlice(size_t index) {
        std::string error;
        const std::optional<ArchiveFile> file = set_.OpenSlice(index, &error);
        if (!file) {
            Fault("", error);
            open_part_.reset();
            begin_known_ = false;
            return;
        }
        const bool has_size = CheckSize(*file, index);
        ArchiveReader reader(*file, NameRoom());
        ArchiveEntry entry;
        for (first_ = true; reader.Next(&entry); first_ = false) {
            CheckEntry(*file, entry);
            joiner_.Take(entry, first_);
        }
        // A size that is read otherwise leads elsewhere: that goes without saying, too.
        if (has_size && (entry.misread == nullptr || reader.end() == ArchiveEnd::kEndBlocks)) {
            CheckEnd(*file, reader, entry);
        }
        begin_known_ = reader.end() == ArchiveEnd::kEndBlocks && set_.is_check_file();
        if (!begin_known_) {
            open_part_.reset();
        }
    }

    // A slice of another size does not end as it should either: that goes without saying.
    bool CheckSize(const ArchiveFile& file, size_t index) {
        if (file.size() != set_.SizeOf(index)) {
            Fault("", fmt::format("has {} bytes, the check file says {}", file.size(),
                                  set_.SizeOf(index)));
        } else if (file.size() % kBlockSize != 0) {
            Fault("", fmt::format("its size of {} bytes is no multiple of 512, so a restore takes "
                                  "nothing of it",
                                  file.size()));
        } else {
            return true;
        }
        return false;
    }

    void CheckEntry(const ArchiveFile& file, const ArchiveEntry& entry) {
        if (entry.IsRestored()) {
            CheckName(entry);
            CheckPlace(entry);
        } else {
            // These two hold nothing that could come back.
            const bool is_needless = entry.type == 'g' || entry.type == 'V';
            Tell(is_needless ? Severity::kWarning : Severity::kFault, slice_, entry.name,
                 fmt::format("a restore passes over this {}", TypeName(entry.type)));
        }
        CheckPart(file, entry);
        if (LacksPadding(file, entry)) {
            Fault(entry.name, "nothing fills its last block, so what lies behind cannot be read");
        }
        // Owners from the first application's on become the one that a restore is for.
        if (entry.IsFile() && !entry.Continues() && (entry.mode & S_ISUID) != 0 &&
            entry.uid < kFirstApplicationUid) {
            Warn(entry.name, fmt::format("is a set-user-id file of uid {}", entry.uid));
        }
    }

    void CheckName(const ArchiveEntry& entry) {
        const tar_header& header = entry.header;
        if (entry.misread != nullptr) {
            Fault(entry.name, fmt::format("a restore and other programs read its {} as different "
                                          "numbers",
                                          entry.misread));
        }
        if (entry.lost_record) {
            Fault(entry.name, "a name or target of more than 2,046 bytes comes back cut");
        } else if (!entry.long_name && IsFull(header.name, sizeof(header.name))) {
            Fault(entry.name, "its name fills the field, and a restore reads on behind it");
        }
        if (entry.type == TYPE_SYMLINK && entry.link.empty()) {
            Fault(entry.name, "a link without a target, which no file system takes");
        } else if (entry.type == TYPE_SYMLINK && !entry.long_link &&
                   IsFull(header.linkname, sizeof(header.linkname))) {
            Fault(entry.name, "its target fills the field, and a restore reads on behind it");
        }
        // Other programs put the front of a long name there; theirs is the other version field.
        if (!entry.long_name && header.prefix[0] != '\0' &&
            std::memcmp(header.magic,
                        "ustar\0"
                        "00",
                        8) == 0) {
            Fault(entry.name, "the directories in its prefix field do not come back");
        }
    }

    // Where a restore puts the entry: what no file system takes, what it passes over, what lies
    // outside the destination or may.
    void CheckPlace(const ArchiveEntry& entry) {
        const std::string path = entry.Path();
        const std::string_view last = LastComponent(entry);
        if (last == "..") {
            return Fault(entry.name, "leaves the directory to be restored");
        }
        if (path.empty() ? entry.type != TYPE_DIRECTORY : last.empty() || last == ".") {
            return Fault(entry.name, "is no name that a restore can make something of");
        }
        const auto is_long = [](std::string_view each) {
            return each.size() - (each.rfind('/') + 1) > kLongestComponent;
        };
        if (AnyUpwards(path, is_long)) {
            return Fault(entry.name, "no file system takes a component of more than 255 bytes");
        }
        const std::string full = (destination_.empty() ? "/" : destination_) + entry.name;
        if (full.find("/com.tencent.mm/tinker/") != std::string::npos) {
            return Fault(entry.name, "lies in a directory that a restore passes over");
        }
        if (!path.empty()) {
            if (!MayGoThroughLink(path)) {
                CheckParent(entry, path);
            }
            Remember(entry, path);
        }
    }

    // A restore makes one directory above a file, with what is known: the file's own mode.
    void CheckParent(const ArchiveEntry& entry, std::string_view path) {
        const std::string_view parent = ParentOf(path);
        if (set_.kind() == ArchiveSet::Kind::kSlice || HasDirectory(parent)) {
            return;
        }
        if (!entry.IsFile() || !HasDirectory(ParentOf(parent))) {
            return Fault(entry.name,
                         "does not come back: no entry in front of it is its directory");
        }
        Warn(entry.name, "no entry in front of it is its directory, which gets this file's mode");
        seen_.Add(parent, PathMark::kDirectory);
    }

    bool HasDirectory(std::string_view path) {
        return path.empty() || seen_.MayHave(path, PathMark::kDirectory);
    }

    bool MayGoThroughLink(std::string_view path) {
        bool may_go = false;
        AnyUpwards(has_links_ ? path : "", [this, &may_go](std::string_view each) {
            if (seen_.MayHave(each, PathMark::kLink)) {
                may_go = true;
                LookAgainFor(each);
            }
            return false;
        });
        return may_go;
    }

    void Remember(const ArchiveEntry& entry, std::string_view path) {
        if (!entry.Continues() && seen_.MayHave(path, PathMark::kAny)) {
            LookAgainFor(path);
        }
        seen_.Add(path, PathMark::kAny);
        if (entry.type == TYPE_SYMLINK) {
            has_links_ = true;
            seen_.Add(path, PathMark::kLink);
        } else if (entry.type == TYPE_DIRECTORY) {
            seen_.Add(path, PathMark::kDirectory);
        }
    }

    void LookAgainFor(std::string_view path) {
        if (doubtful_.size() < kMostDoubtful) {
            doubtful_.emplace(HashOfPath(path), Met::kNot);
        } else {
            has_more_doubts_ = true;
        }
    }

    // Reads the entries once more for the paths that may have come before.
    void LookAgain() {
        const uint64_t faults = verdict_.faults;
        for (size_t i = 0; !doubtful_.empty() && i < set_.size(); i++) {
            slice_ = set_.NameOf(i);
            std::string error;
            const std::optional<ArchiveFile> file = set_.OpenSlice(i, &error);
            if (!file) {
                continue;
            }
            ArchiveReader reader(*file, NameRoom());
            for (ArchiveEntry entry; reader.Next(&entry);) {
                if (entry.IsRestored()) {
                    LookAgainAt(entry, entry.Path());
                }
            }
        }
        if (has_more_doubts_ && faults == verdict_.faults) {
            Tell(Severity::kWarning, "", "",
                 "too many entries to tell whether a name is there twice");
        }
    }

    void LookAgainAt(const ArchiveEntry& entry, std::string_view path) {
        // A link itself replaces one of its name; all else is written through it.
        const bool is_link = entry.type == TYPE_SYMLINK;
        const auto goes_through = [&](std::string_view each) {
            const auto row = doubtful_.find(HashOfPath(each));
            const bool is_through = row != doubtful_.end() && row->second == Met::kLink;
            if (is_through && !(entry.Continues() && told_ == path)) {
                told_ = path;
                Fault(entry.name, fmt::format("goes through the link {} of the archive", each));
            }
            return is_through;
        };
        const bool is_told = AnyUpwards(is_link ? ParentOf(path) : path, goes_through);
        const auto own = doubtful_.find(HashOfPath(path));
        if (own == doubtful_.end()) {
            return;
        }
        if (own->second != Met::kNot && !is_told && !entry.Continues()) {
            Fault(entry.name, "is there again: this one comes back, those before it do not");
        }
        if (own->second != Met::kLink) {
            own->second = is_link ? Met::kLink : Met::kOther;
        }
    }

    void CheckPart(const ArchiveFile& file, const ArchiveEntry& entry) {
        if (set_.kind() == ArchiveSet::Kind::kArchive &&
            (entry.Continues() || entry.FillsSlice())) {
            return Fault(entry.name, "one part of a cut file: the others lie in other slices");
        }
        if (open_part_ && !first_) {
            Fault(open_part_->name,
                  "its part ends before its slice does: its header promises more than there was");
            open_part_.reset();
        }
        if (entry.Continues()) {
            CheckContinuation(entry);
        } else if (first_) {
            CloseOpenPart(false);
        }
        open_part_.reset();
        if (entry.FillsSlice()) {
            open_part_ = {slice_, entry.name, entry.type, HasOddEnd(file, entry)};
        }
    }

    void CheckContinuation(const ArchiveEntry& entry) {
        if (!begin_known_ && first_) {
            return;
        }
        if (!open_part_) {
            Fault(entry.name, "continues a file of which the part before is not there");
        } else if (open_part_->name != entry.name) {
            Fault(entry.name,
                  fmt::format("continues a file where {} should go on", open_part_->name));
        }
    }

    // A first part that nothing follows may be a file that ended just where its slice did, or one
    // whose header promises too much, so that what lies behind its content passes for it.
    void CloseOpenPart(bool at_set_end) {
        if (!open_part_) {
            return;
        }
        const OpenPart part = *open_part_;
        open_part_.reset();
        if (part.type == TYPE_MIDDLE_PART) {
            Tell(Severity::kFault, part.slice, part.name, "its next part is not there");
        } else if (part.odd_end) {
            Tell(Severity::kSuspicion, part.slice, part.name,
                 "ends just where its slice does, in bytes that may not be its own");
        } else if (at_set_end) {
            Tell(Severity::kWarning, part.slice, part.name,
                 "ends just where the last slice does: a further slice may be missing");
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
        switch (reader.end()) {
            case ArchiveEnd::kEndBlocks:
                return CheckBehindEnd(file, reader.end_offset());
            case ArchiveEnd::kDataCut:
                return entry.name.empty()
                           ? Fault("", "a long-name record is cut")
                           : Fault(entry.name,
                                   fmt::format("promises {} bytes of content, {} are there",
                                               entry.size, file.size() - entry.data_offset));
            case ArchiveEnd::kRefusedName:
                return Fault(entry.name, DescribeEnd(reader.end()));
            default:
                Fault("", fmt::format("{}, at {}{}", DescribeEnd(reader.end()), reader.end_offset(),
                                      entry.name.empty() ? "" : ", behind " + entry.name));
        }
    }

    // Others fill up behind the end blocks, with zeros. All else was something once: a header that
    // is overwritten with zeros ends an archive early.
    void CheckBehindEnd(const ArchiveFile& file, uint64_t offset) {
        const std::optional<uint64_t> used = file.FindNonZero(offset);
        if (!used) {
            Fault("", "its end cannot be read");
        } else if (*used < file.size()) {
            Fault("", fmt::format("its end blocks, at {}, are not the end: what follows at {} does "
                                  "not come back",
                                  offset, *used));
        }
    }

    // A slice that is not the last is closed by the write that makes it reach the slice size. When
    // the last one is as full, another was begun, which is dropped if it holds empty files alone.
    void CheckLastSliceFull() {
        uint64_t slice_size = UINT64_MAX;
        for (size_t i = 0; i + 1 < set_.size(); i++) {
            slice_size = std::min(slice_size, ContentOf(i) / kMiB * kMiB);
        }
        if (ContentOf(set_.size() - 1) >= slice_size) {
            Warn("", "the last slice is full: empty files behind it, if there were any, are lost");
        }
    }

    uint64_t ContentOf(size_t index) const {
        return set_.SizeOf(index) - std::min<uint64_t>(set_.SizeOf(index), kEndBlocksSize);
    }

    const ArchiveSet& set_;
    const std::string destination_;
    const FindingSink& sink_;
    Verdict verdict_;
    const std::function<void(const TallyEntry&)> add_ = [this](const TallyEntry& entry) {
        verdict_.tally.Add(entry);
    };
    const EntryVisitor visit_ = TalliedOf(add_);
    PartJoiner joiner_{set_, visit_};

    std::string slice_;  // the name of the one at hand
    bool first_ = true;  // the next entry is its slice's first
    bool begin_known_;   // the slice before this one was read to its end
    std::optional<OpenPart> open_part_;

    PathFilter seen_;
    std::unordered_map<uint64_t, Met> doubtful_;  // by their hashes, the paths to look for again
    bool has_more_doubts_ = false;
    bool has_links_ = false;
    std::string told_;  // the file that goes through a link, of which parts may follow
};

}  // namespace

Verdict VerifySet(const ArchiveSet& set, const std::string& destination, const FindingSink& sink) {
    return SetVerifier(set, destination, sink).Run();
}

void VisitRestored(const ArchiveSet& set, const std::function<void(const TallyEntry&)>& visit) {
    ListSet(
        set, [](const Finding&) {}, TalliedOf(visit));
}

}  // namespace peltexctl
