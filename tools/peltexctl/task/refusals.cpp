// Tested by tests/peltexctl/test_refusals.py.
#include "task/refusals.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "base/path_rules.h"
#include "task/backup_files.h"
#include "ui/exit_code.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using android::installd::is_allow_access;

// As people are told them; is_allow_access() decides.
constexpr const char* kAreas[] = {
    "/data/data",        "/data/user",           "/data/misc/wifi",
    "/storage/emulated", "/mnt/androidwritable", "/data/misc/apexdata/com.android.wifi",
};

template <typename... Arguments>
[[noreturn]] void Refuse(fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    throw Failure(kTaskFailed, fmt::format(text, std::forward<Arguments>(arguments)...));
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

void RefuseRoom(const std::string& path, uint64_t needed, const Space& space) {
    // A file system that has no size tells nothing.
    if (space.total > 0 && needed > space.free) {
        Refuse("{}: {} are needed and {} are free; make room, or --force", path, HumanSize(needed),
               HumanSize(space.free));
    }
}

void RefuseSameOrNested(const std::string& from, const std::string& to, bool is_file) {
    const std::optional<FileId> source = IdOf(from);
    const std::optional<FileId> target = IdOf(to);
    if (source && source == target) {
        Refuse("{} and {} are the same; --force goes on", from, to);
    }
    const bool is_below = source && !is_file && LiesIn(to, *source);
    if (is_below || (target && !is_file && LiesIn(from, *target))) {
        Refuse("{} is inside {}; --force goes on", is_below ? to : from, is_below ? from : to);
    }
}

void RefuseRecords(const std::string& copy, const std::string& destination) {
    if (!StatOf(copy + ".txt")) {
        Refuse(
            "{}.txt: the records of the copy are not there, so no mode comes back; --force goes "
            "on",
            copy);
    }
    const std::optional<std::string> first = FirstRecordOf(copy);
    if (first && first->rfind(destination + "/", 0) != 0) {
        Refuse("{}.txt: its records are of {}, not of {}; --force goes on", copy, *first,
               destination);
    }
}

void RefuseTake(const TaskRequest& request) {
    const std::optional<FileId> take = IdOf(request.take);
    if (!request.take.empty() &&
        (take ? take == IdOf(request.destination) : request.take == request.destination)) {
        throw Failure(kUsage, "--take " + request.take + " is DEST itself");
    }
}

void RefusePaths(const TaskKind& kind, const TaskRequest& request) {
    const char* const hint = "use --data DIR to show a directory as /data";
    for (const std::string& path : {request.source, request.destination}) {
        if (path.find("../") != std::string::npos) {
            Refuse("{}: has \"../\" in it, which the library refuses; write it without", path);
        }
        if (!is_allow_access(path.c_str())) {
            Refuse("{}: is not in an area that the library takes ({}); {}", path,
                   fmt::join(kAreas, ", "), hint);
        }
    }
    const std::string source = kind.SourcePath(request);
    if (!StatOf(source) && !request.force) {
        Refuse("{}: does not exist{}{}", source,
               StatOf("/data") ? "" : ", and neither does /data; ", StatOf("/data") ? "" : hint);
    }
}

void RefuseLoss(const TaskKind& kind, const TaskRequest& request) {
    const std::string from = kind.SourcePath(request);
    const std::optional<struct stat> source = StatOf(from);
    const bool is_tree = kind.source == Source::kTree || kind.source == Source::kRecords;
    if (!kind.Unpacks() && !is_tree && source && !S_ISREG(source->st_mode)) {
        Refuse("{}: is no regular file; --force goes on", from);
    }
    if (kind.Copies()) {
        const bool is_file = kind.source == Source::kFile;
        RefuseSameOrNested(from, is_file ? TargetFile(request) : kind.ResultPath(request), is_file);
    }
    if (kind.source == Source::kRecords) {
        RefuseRecords(from, request.destination);
    }
}

void RefuseReplacing(const TaskKind& kind, const TaskRequest& request) {
    if (kind.result != Result::kSet) {
        return;
    }
    for (const std::string& directory : {request.destination, request.take}) {
        const std::vector<std::string> old = BackupFiles(
            OpenDirectory(directory), NameOf(request.source) + ".tar", kind.HandsOver());
        if (!old.empty()) {
            Refuse("{}/{}: is there already; --replace writes over {}", directory, old[0],
                   kind.HandsOver() ? "the set" : "it");
        }
    }
}

}  // namespace

void RefuseRequest(const TaskKind& kind, const TaskRequest& request) {
    RefuseTake(request);
    RefusePaths(kind, request);
    if (!request.force) {
        RefuseLoss(kind, request);
    }
    if (!request.replace) {
        RefuseReplacing(kind, request);
    }
}

void RefuseArchive(const TaskKind& kind, const ArchiveSet& set) {
    if (kind.RestoresSlices() && !set.is_check_file()) {
        Refuse("{} is {}: restore split takes the check file, NAME.tar.txt", set.path(),
               set.kind() == ArchiveSet::Kind::kSlice ? "a slice" : "an archive");
    }
    if (!kind.RestoresSlices() && set.is_check_file()) {
        Refuse("{} is a check file: restore split takes it", set.path());
    }
}

void RefuseByTally(const TaskKind& kind, const TaskRequest& request, TaskCheck* check) {
    const size_t named = check->first_lost().size();
    if (kind.IsMove() && check->lost() > 0) {
        Refuse("{}: a move would delete what it leaves out: {}{}; --force goes on", request.source,
               fmt::join(check->first_lost(), ", "),
               check->lost() > named ? fmt::format(" and {} more", check->lost() - named) : "");
    }
    if (kind.IsBrief()) {
        return;
    }
    const Space space = SpaceAt(request.destination);
    const Space taken = SpaceAt(request.take.empty() ? request.destination : request.take);
    // Blocks and headers are counted where they may matter.
    const uint64_t most =
        check->expected().bytes() + check->expected().entries() * (space.block + 4096) + 4096;
    if (taken.device != space.device) {
        const uint64_t slice = static_cast<uint64_t>(SliceSizeOf(request)) << 20;
        RefuseRoom(request.destination, std::min(slice, most), space);
    }
    if (most > taken.free) {
        RefuseRoom(taken.device != space.device ? request.take : request.destination,
                   check->RoomFor(space.block), taken);
    }
}

std::string HintAtRoom(const std::string& path, uint64_t bytes) {
    const Space space = SpaceAt(path);
    return space.total > 0 && space.free < std::max<uint64_t>(bytes, 1) ? "; make room" : "";
}

}  // namespace peltexctl
