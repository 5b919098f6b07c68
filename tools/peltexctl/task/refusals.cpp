// Tested by tests/peltexctl/test_refusals.py.
#include "task/refusals.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "task/backup_files.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr const char* kAreas[] = {
    "/data/data",        "/data/user",           "/data/misc/wifi",
    "/storage/emulated", "/mnt/androidwritable", "/data/misc/apexdata/com.android.wifi",
};

bool IsInArea(const std::string& path) {
    return std::any_of(std::begin(kAreas), std::end(kAreas),
                       [&path](std::string_view area) { return path.rfind(area, 0) == 0; });
}

// Free and total bytes of the file system that `path` is on or will be.
struct Space {
    uint64_t free = 0;
    uint64_t total = 0;
    uint64_t block = 0;
    dev_t device = 0;
};

Space SpaceAt(const std::string& path) {
    const std::string there = NearestThere(path);
    const std::optional<struct stat> status = StatOf(there);
    struct statvfs system = {};
    if (!status || statvfs(there.c_str(), &system) != 0) {
        return {};
    }
    const uint64_t block = system.f_frsize;
    return {(geteuid() == 0 ? system.f_bfree : system.f_bavail) * block, system.f_blocks * block,
            block, status->st_dev};
}

std::string RefuseRoom(const std::string& path, uint64_t needed, const Space& space) {
    // A file system that has no size tells nothing.
    return space.total == 0 || needed <= space.free
               ? ""
               : fmt::format("{}: {} are needed and {} are free; make room, or --force", path,
                             HumanSize(needed), HumanSize(space.free));
}

std::string RefuseSameOrNested(const TaskKind& kind, const TaskRequest& request) {
    const std::string from = kind.source_path(request);
    const bool is_file = kind.source == Source::kFile;
    const std::string to = is_file ? TargetFile(request) : kind.result_path(request);
    const std::optional<FileId> source = IdOf(from);
    const std::optional<FileId> target = IdOf(to);
    if (!source) {
        return "";
    }
    if (target && *source == *target) {
        return fmt::format("{} and {} are the same", from, to);
    }
    if (!is_file && LiesIn(to, *source)) {
        return fmt::format("{} is inside {}", to, from);
    }
    return !is_file && target && LiesIn(from, *target) ? fmt::format("{} is inside {}", from, to)
                                                       : "";
}

std::string RefuseRecords(const TaskRequest& request, const std::string& copy) {
    const std::string records = copy + ".txt";
    if (!StatOf(records)) {
        return records + ": the records of the copy are not there, so no mode comes back";
    }
    const std::optional<std::string> first = FirstRecordOf(copy);
    return first && first->rfind(request.destination + "/", 0) != 0
               ? fmt::format("{}: its records are of {}, not of {}", records, *first,
                             request.destination)
               : "";
}

}  // namespace

std::string Areas() {
    return fmt::format("{}", fmt::join(kAreas, ", "));
}

std::string RefusePaths(const TaskKind& kind, const TaskRequest& request) {
    const char* const hint = "use --data DIR to show a directory as /data";
    for (const std::string& path : {request.source, request.destination}) {
        if (path.find("../") != std::string::npos) {
            return path + ": has \"../\" in it, which the library refuses; write it without";
        }
        if (!IsInArea(path)) {
            return fmt::format("{}: is not in an area that the library takes ({}); {}", path,
                               Areas(), hint);
        }
    }
    const std::string source = kind.source == Source::kRecords ? kind.source_path(request)
                                                                : request.source;
    if (StatOf(source) || request.force) {
        return "";
    }
    return source + (StatOf("/data") ? ": does not exist"
                                     : fmt::format(": does not exist, and neither does /data; {}",
                                                   hint));
}

std::string RefuseArchive(const TaskKind& kind, const ArchiveSet& set) {
    if (kind.RestoresSlices() == set.is_check_file()) {
        return "";
    }
    return set.is_check_file()
               ? set.path() + " is a check file: restore split takes it"
               : fmt::format("{} is {}: restore split takes the check file, NAME.tar.txt",
                             set.path(),
                             set.kind() == ArchiveSet::Kind::kSlice ? "a slice" : "an archive");
}

bool TakesWhereItWrites(const TaskRequest& request) {
    const std::optional<FileId> take = IdOf(request.take);
    const std::optional<FileId> destination = IdOf(request.destination);
    return !request.take.empty() &&
           (take ? destination && *take == *destination : request.take == request.destination);
}

std::string RefuseLoss(const TaskKind& kind, const TaskRequest& request) {
    std::string reason;
    const std::optional<struct stat> source = StatOf(kind.source_path(request));
    const bool is_tree = kind.source == Source::kTree || kind.source == Source::kRecords;
    if (!kind.Unpacks() && !is_tree && source && !S_ISREG(source->st_mode)) {
        reason = kind.source_path(request) + ": is no regular file";
    } else if (kind.Copies()) {
        reason = RefuseSameOrNested(kind, request);
    }
    if (reason.empty() && kind.source == Source::kRecords) {
        reason = RefuseRecords(request, kind.source_path(request));
    }
    return reason.empty() ? "" : reason + "; --force goes on";
}

std::string RefuseReplacing(const TaskKind& kind, const TaskRequest& request) {
    if (kind.result != Result::kSet) {
        return "";
    }
    for (const std::string& directory : {request.destination, request.take}) {
        const BackupFiles old(directory, NameOf(request.source) + ".tar");
        if (const std::string first = old.First(kind.HandsOver()); !first.empty()) {
            return fmt::format("{}: is there already; --replace writes over {}", first,
                               kind.HandsOver() ? "the set" : "it");
        }
    }
    return "";
}

std::string RefuseByTally(const TaskKind& kind, const TaskRequest& request, TaskCheck* check) {
    if (kind.IsMove() && check->lost() > 0) {
        return fmt::format("{}: a move would delete what it leaves out: {}{}; --force goes on",
                           request.source, fmt::join(check->first_lost(), ", "),
                           check->lost() > check->first_lost().size()
                               ? fmt::format(" and {} more", check->lost() -
                                                                 check->first_lost().size())
                               : "");
    }
    if (kind.IsBrief()) {
        return "";
    }
    const Space space = SpaceAt(request.destination);
    // Blocks and headers are counted where they may matter.
    const uint64_t most =
        check->expected().bytes() + check->expected().entries() * (space.block + 4096) + 4096;
    const bool takes_away =
        !request.take.empty() && SpaceAt(request.take).device != space.device;
    if (takes_away) {
        const uint64_t slice = static_cast<uint64_t>(SliceSizeOf(request)) << 20;
        const std::string reason = RefuseRoom(request.destination, std::min(slice, most), space);
        return !reason.empty() || most <= SpaceAt(request.take).free
                   ? reason
                   : RefuseRoom(request.take, check->RoomFor(space.block), SpaceAt(request.take));
    }
    return most <= space.free
               ? ""
               : RefuseRoom(request.destination, check->RoomFor(space.block), space);
}

std::string HintAtRoom(const std::string& path, uint64_t bytes) {
    const Space space = SpaceAt(path);
    return space.total > 0 && space.free < std::max<uint64_t>(bytes, 1) ? "; make room" : "";
}

}  // namespace peltexctl
