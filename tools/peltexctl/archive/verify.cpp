// Tested by tests/peltexctl/test_archives.py.
#include "archive/verify.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <unordered_map>

namespace peltexctl {

namespace {

using namespace android::installd;
using Severity = Finding::Severity;

constexpr uint64_t kMiB = 1 << 20;
constexpr size_t kMaxTail = kMiB;
constexpr uint64_t kFirstApplicationUid = 10000;

// What a restore does with entries of types that are not its own.
struct ForeignType {
    char type;
    Severity severity;
    const char* message;
};

constexpr ForeignType kForeignTypes[] = {
    {'1', Severity::kFault, "a hard link, which a restore passes over"},
    {'3', Severity::kFault, "a character device, which a restore passes over"},
    {'4', Severity::kFault, "a block device, which a restore passes over"},
    {'6', Severity::kFault, "a FIFO, which a restore passes over"},
    {'g', Severity::kWarning, "an extended header, which a restore passes over"},
    {'V', Severity::kWarning, "a volume label, which a restore passes over"},
    {'x', Severity::kFault, "an extended header, which a restore passes over"},
};

constexpr char kOwnTypes[] = {TYPE_REGULAR,    TYPE_SYMLINK,     TYPE_DIRECTORY,
                              TYPE_FIRST_PART, TYPE_MIDDLE_PART, TYPE_LAST_PART};

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

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

// The symbolic links that an archive makes. A restore follows them, and so writes wherever they
// lead.
class LinksMade {
  public:
    struct Link {
        std::string path;
        std::string target;
    };

    // The first of them on the way to where a restore would put the entry. A link itself replaces
    // one of its name.
    std::optional<Link> OnTheWayTo(const ArchiveEntry& entry) const {
        if (links_.empty()) {
            return std::nullopt;
        }
        const std::string path = Normal(entry.name);
        size_t end = 0;
        while (end != std::string::npos) {
            end = path.find('/', end + 1);
            const auto link = links_.find(path.substr(0, end));
            const bool is_own = end == std::string::npos && entry.type == TYPE_SYMLINK;
            if (link != links_.end() && !is_own) {
                return Link{link->first, link->second};
            }
        }
        return std::nullopt;
    }

    void Take(const ArchiveEntry& entry) {
        if (entry.type == TYPE_SYMLINK) {
            links_[Normal(entry.name)] = entry.link;
        }
    }

  private:
    // Without what does not change where a path leads: empty components and single dots.
    static std::string Normal(const std::string& name) {
        std::string path;
        for (size_t begin = 0; begin < name.size();) {
            const size_t end = std::min(name.find('/', begin), name.size());
            const std::string component = name.substr(begin, end - begin);
            if (!component.empty() && component != ".") {
                path += (path.empty() ? "" : "/") + component;
            }
            begin = end + 1;
        }
        return path;
    }

    std::unordered_map<std::string, std::string> links_;
};

class SetVerifier {
  public:
    SetVerifier(const ArchiveSet& set, const FindingSink& sink, const EntryVisitor& visit)
        : set_(set),
          sink_(sink),
          visit_(visit),
          begin_known_(set.kind == ArchiveSet::Kind::kCheckFile) {}

    VerifyCounts Run() {
        for (const ArchiveSet::Slice& slice : set_.slices) {
            slice_ = &slice;
            CheckSlice();
        }
        if (set_.kind == ArchiveSet::Kind::kCheckFile && !set_.slices.empty()) {
            CloseOpenPart(true);
            CheckLastSliceFull();
        }
        return counts_;
    }

  private:
    // A cut file's part that fills its slice, so that the next slice goes on with the file.
    struct OpenPart {
        std::string slice;
        std::string name;
        char type;
        bool odd_end;  // see HasOddEnd()
    };

    void Tell(Severity severity, const std::string& entry, const std::string& message) {
        sink_({severity, slice_->name, entry, message});
    }
    void Fault(const std::string& entry, const std::string& message) {
        Tell(Severity::kFault, entry, message);
    }

    void CheckSlice() {
        std::string error;
        const std::optional<ArchiveFile> file = ArchiveFile::Open(slice_->path, &error);
        if (!file) {
            Fault("", error);
            open_part_.reset();
            begin_known_ = false;
            return;
        }
        CheckSize(*file);
        ArchiveReader reader(*file);
        ArchiveEntry entry;
        ArchiveEntry last;
        first_ = true;
        while (reader.Next(&entry)) {
            CheckEntry(*file, entry);
            visit_(entry);
            last = entry;
            first_ = false;
        }
        const bool blame_entry =
            reader.end() == ArchiveEnd::kDataCut || reader.end() == ArchiveEnd::kRefusedName;
        CheckEnd(*file, reader, blame_entry ? entry : last);
        begin_known_ =
            reader.end() == ArchiveEnd::kEndBlocks && set_.kind == ArchiveSet::Kind::kCheckFile;
        if (!begin_known_) {
            open_part_.reset();
        }
    }

    void CheckSize(const ArchiveFile& file) {
        if (set_.kind == ArchiveSet::Kind::kCheckFile && file.size() != slice_->listed_size) {
            Fault("", fmt::format("has {} bytes, the check file says {}", file.size(),
                                  slice_->listed_size));
        }
        if (file.size() % kBlockSize != 0) {
            Fault("", fmt::format("its size of {} bytes is no multiple of 512, so a restore takes "
                                  "nothing of it",
                                  file.size()));
        }
    }

    void CheckEntry(const ArchiveFile& file, const ArchiveEntry& entry) {
        counts_.entries += entry.Continues() ? 0 : 1;
        counts_.bytes += entry.IsFile() ? entry.size : 0;
        CheckType(entry);
        CheckName(entry);
        CheckReach(entry);
        CheckPart(file, entry);
        if (LacksPadding(file, entry)) {
            Fault(entry.name, "nothing fills its last block, so what lies behind cannot be read");
        }
    }

    void CheckType(const ArchiveEntry& entry) {
        if (std::find(std::begin(kOwnTypes), std::end(kOwnTypes), entry.type) !=
            std::end(kOwnTypes)) {
            return;
        }
        for (const ForeignType& row : kForeignTypes) {
            if (row.type == entry.type) {
                Tell(row.severity, entry.name, row.message);
                return;
            }
        }
        Fault(entry.name, fmt::format("of type 0x{:02x}, which a restore passes over",
                                      static_cast<unsigned char>(entry.type)));
    }

    void CheckName(const ArchiveEntry& entry) {
        const tar_header& header = entry.header;
        if (entry.lost_record) {
            Fault(entry.name, "a name or target of more than 2,046 bytes comes back cut");
        } else if (!entry.long_name && IsFull(header.name, sizeof(header.name))) {
            Fault(entry.name, "its name fills the field, and a restore reads on behind it");
        }
        if (entry.type == TYPE_SYMLINK && !entry.long_link &&
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
        // The shortest destination is one byte and a slash.
        if (entry.name.empty() || entry.name.size() + 2 >= kTarPathSize) {
            Fault(entry.name, "a restore ends here: the name has no bytes or too many");
        }
        if (("/" + entry.name).find("/com.tencent.mm/tinker/") != std::string::npos) {
            Fault(entry.name, "lies in a directory that a restore passes over");
        }
    }

    // What comes back as it was, and is no restorer's wish unless the archive is one of their own.
    void CheckReach(const ArchiveEntry& entry) {
        if (EndsWith("/" + entry.name, "/..")) {
            Tell(Severity::kWarning, entry.name, "leaves the directory to be restored");
        }
        if (entry.Continues()) {
            return;
        }
        if (const auto link = links_.OnTheWayTo(entry)) {
            Tell(Severity::kWarning, entry.name,
                 fmt::format("goes to {}, through the link {} of the archive", link->target,
                             link->path));
        }
        links_.Take(entry);
        // Owners from the first application's on become the one that a restore is for.
        if (entry.IsFile() && (entry.mode & S_ISUID) != 0 && entry.uid < kFirstApplicationUid) {
            Tell(Severity::kWarning, entry.name,
                 fmt::format("is a set-user-id file of uid {}", entry.uid));
        }
    }

    void CheckPart(const ArchiveFile& file, const ArchiveEntry& entry) {
        if (set_.kind == ArchiveSet::Kind::kArchive && (entry.Continues() || entry.FillsSlice())) {
            Fault(entry.name, "one part of a cut file: the others lie in other slices");
            return;
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
            open_part_ = {slice_->name, entry.name, entry.type, HasOddEnd(file, entry)};
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
            sink_({Severity::kFault, part.slice, part.name, "its next part is not there"});
        } else if (part.odd_end) {
            sink_({Severity::kSuspicion, part.slice, part.name,
                   "ends just where its slice does, in bytes that may not be its own"});
        } else if (at_set_end) {
            sink_({Severity::kWarning, part.slice, part.name,
                   "ends just where the last slice does: a further slice may be missing"});
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
                if (entry.name.empty()) {
                    return Fault("", "a long-name record is cut");
                }
                return Fault(entry.name, fmt::format("promises {} bytes of content, {} are there",
                                                     entry.size, file.size() - entry.data_offset));
            case ArchiveEnd::kRefusedName:
                return Fault(entry.name, DescribeEnd(reader.end()));
            default:
                Fault("", fmt::format("{}, at {}{}", DescribeEnd(reader.end()), reader.end_offset(),
                                      Behind(entry)));
        }
    }

    static std::string Behind(const ArchiveEntry& entry) {
        return entry.name.empty() ? "" : fmt::format(", behind {}", entry.name);
    }

    // Other programs fill up behind the end blocks of whole archives, with zeros.
    void CheckBehindEnd(const ArchiveFile& file, uint64_t offset) {
        const uint64_t behind = file.size() - offset - kEndBlocksSize;
        std::string tail(static_cast<size_t>(std::min<uint64_t>(file.size() - offset, kMaxTail)),
                         '\0');
        if (!file.ReadAt(offset, tail.data(), tail.size())) {
            return Fault("", "its end cannot be read");
        }
        const size_t used = tail.find_first_not_of('\0');
        if (used < kEndBlocksSize) {
            Fault("",
                  fmt::format("bytes that are not zero in its end blocks, at {}", offset + used));
        } else if (set_.has_slices() && behind > 0) {
            Fault("", fmt::format("{} bytes behind its end blocks do not come back", behind));
        } else if (used != std::string::npos) {
            Tell(Severity::kWarning, "", "the bytes behind its end blocks do not come back");
        }
    }

    // A slice that is not the last is closed by the write that makes it reach the slice size. When
    // the last one is as full, another was begun, which is dropped if it holds empty files alone.
    void CheckLastSliceFull() {
        uint64_t slice_size = UINT64_MAX;
        for (size_t i = 0; i + 1 < set_.slices.size(); i++) {
            slice_size = std::min(slice_size, ContentOf(set_.slices[i]) / kMiB * kMiB);
        }
        if (ContentOf(set_.slices.back()) >= slice_size) {
            Tell(Severity::kWarning, "",
                 "the last slice is full: empty files behind it, if there were any, are lost");
        }
    }

    static uint64_t ContentOf(const ArchiveSet::Slice& slice) {
        return slice.listed_size - std::min<uint64_t>(slice.listed_size, kEndBlocksSize);
    }

    const ArchiveSet& set_;
    const FindingSink& sink_;
    const EntryVisitor& visit_;
    const ArchiveSet::Slice* slice_ = nullptr;
    bool first_ = true;  // the next entry is its slice's first
    bool begin_known_;   // the slice before this one was read to its end
    std::optional<OpenPart> open_part_;
    LinksMade links_;
    VerifyCounts counts_;
};

}  // namespace

VerifyCounts VerifySet(const ArchiveSet& set, const FindingSink& sink, const EntryVisitor& visit) {
    return SetVerifier(set, sink, visit).Run();
}

}  // namespace peltexctl
