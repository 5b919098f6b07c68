// Tested by tests/client/peltexctl.md.
#include "task/refusals.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <filesystem>

#include "base/path_rules.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace fs = std::filesystem;

namespace {

// As people are told them; is_allow_access() decides.
constexpr const char* kAreas[] = {
    "/data/data",        "/data/user",           "/data/misc/wifi",
    "/storage/emulated", "/mnt/androidwritable", "/data/misc/apexdata/com.android.wifi",
};

template <typename... Arguments>
void RefuseIf(bool is_wrong, fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    if (is_wrong) {
        throw Failure(kTaskFailed, fmt::format(text, std::forward<Arguments>(arguments)...));
    }
}

// The file system that `path` is on or will be. One that has no size has room for all.
struct Space {
    explicit Space(const std::string& where) : path(where) {
        const std::string there = NearestThere(path);
        const std::optional<struct stat> status = StatOf(there);
        struct statvfs system = {};
        if (status && statvfs(there.c_str(), &system) == 0 && system.f_blocks > 0) {
            free = (geteuid() == 0 ? system.f_bfree : system.f_bavail) * system.f_frsize;
            device = status->st_dev;
        }
    }

    const std::string path;
    uint64_t free = UINT64_MAX;  // bytes
    dev_t device = 0;
};

void RefuseRoom(const Space& space, uint64_t needed) {
    RefuseIf(needed > space.free, "{}: {} are needed and {} are free; make room, or --force",
             space.path, HumanSize(needed), HumanSize(space.free));
}

void RefuseSameOrNested(const std::string& from, const std::string& to) {
    const std::optional<FileId> source = IdOf(from);
    const std::optional<FileId> target = IdOf(to);
    RefuseIf(source && source == target, "{} and {} are the same; --force goes on", from, to);
    const bool is_below = source && LiesIn(to, *source);
    RefuseIf(is_below || (target && LiesIn(from, *target)), "{} is inside {}; --force goes on",
             is_below ? to : from, is_below ? from : to);
}

void RefuseRecords(const std::string& copy, const std::string& destination) {
    RefuseIf(!StatOf(copy + ".txt"),
             "{}.txt: the records of the copy are not there, so no mode comes back; --force goes "
             "on",
             copy);
    const std::optional<std::string> first = FirstRecordOf(copy);
    RefuseIf(first && first->rfind(destination + "/", 0) != 0,
             "{}.txt: its records are of {}, not of {}; --force goes on", copy, first.value_or(""),
             destination);
}

void RefusePaths(const TaskKind& kind, const TaskRequest& request) {
    const char* const hint = "use --data DIR to show a directory as /data";
    for (const std::string& path : {request.source, request.destination}) {
        RefuseIf(path.find("../") != std::string::npos,
                 "{}: has \"../\" in it, which the library refuses; write it without", path);
        RefuseIf(!android::installd::is_allow_access(path.c_str()),
                 "{}: is not in an area that the library takes ({}); {}", path,
                 fmt::join(kAreas, ", "), hint);
    }
    const std::string source = kind.SourcePath(request);
    const bool has_data = StatOf("/data").has_value();
    RefuseIf(!request.force && !StatOf(source), "{}: does not exist{}{}", source,
             has_data ? "" : ", and neither does /data; ", has_data ? "" : hint);
}

void RefuseLoss(const TaskKind& kind, const TaskRequest& request) {
    const std::string from = kind.SourcePath(request);
    const std::optional<struct stat> source = StatOf(from);
    const bool is_file = kind.source == Source::kFile;
    const bool is_tree = kind.source == Source::kTree || kind.source == Source::kRecords;
    RefuseIf(!kind.Unpacks() && !is_tree && source && !S_ISREG(source->st_mode),
             "{}: is no regular file; --force goes on", from);
    if (kind.result == Result::kTree && (is_file || is_tree)) {
        RefuseSameOrNested(from, is_file ? TargetFile(request) : kind.ResultPath(request));
    }
    if (kind.source == Source::kRecords) {
        RefuseRecords(from, request.destination);
    }
}

void RefuseReplacing(const TaskKind& kind, const TaskRequest& request) {
    for (const std::string& directory : {request.destination, request.take}) {
        const std::vector<std::string> old = FilesThere(kind, request, OpenDirectory(directory));
        RefuseIf(!old.empty(), "{}/{}: is there already; --replace writes over {}", directory,
                 old.empty() ? "" : old[0], kind.HandsOver() ? "the set" : "it");
    }
}

}  // namespace

void RefuseRequest(const TaskKind& kind, const TaskRequest& request) {
    const std::optional<FileId> take = IdOf(request.take);
    Ensure(request.take.empty() ||
               (take ? take != IdOf(request.destination) : request.take != request.destination),
           "--take " + request.take + " is DEST itself", kUsage);
    RefusePaths(kind, request);
    if (!request.force) {
        RefuseLoss(kind, request);
    }
    if (kind.result == Result::kSet && !request.replace) {
        RefuseReplacing(kind, request);
    }
}

void RefuseArchive(const TaskKind& kind, const ArchiveSet& set) {
    RefuseIf(kind.RestoresSlices() && !set.is_check_file(),
             "{} is {}: restore split takes the check file, NAME.tar.txt", set.path(),
             set.kind() == ArchiveSet::Kind::kSlice ? "a slice" : "an archive");
    RefuseIf(!kind.RestoresSlices() && set.is_check_file(),
             "{} is a check file: restore split takes it", set.path());
}

void RefuseByTally(const TaskKind& kind, const TaskRequest& request, const TaskCheck& check) {
    const std::vector<std::string>& lost = check.lost();
    RefuseIf(kind.IsMove() && !lost.empty(),
             "{}: a move would delete what it leaves out: {}; --force goes on", request.source,
             fmt::join(lost, ", "));
    if (kind.IsBrief()) {
        return;
    }
    const Space space(request.destination);
    const Space taken(request.take.empty() ? request.destination : request.take);
    const bool packs = kind.result == Result::kSet;
    const uint64_t needed = packs ? check.expected().packed() : check.expected().stored();
    if (taken.device != space.device) {
        RefuseRoom(space, std::min(static_cast<uint64_t>(SliceSizeOf(request)) << 20, needed));
    }
    RefuseRoom(taken, needed);
}

std::vector<std::string> FilesThere(const TaskKind& kind, const TaskRequest& request,
                                    const UniqueFd& directory) {
    std::vector<std::string> names;
    const std::string base = NameOf(request.source) + ".tar";
    const bool is_set = kind.HandsOver();
    for (const fs::directory_entry& entry : EntriesOf(directory)) {
        const fs::path name = entry.path().filename();
        const std::string end = name.stem() == base ? name.extension() : "";
        if (end == ".sha256" || (is_set ? end == ".txt" || NamesSlice(end) : name == base)) {
            names.push_back(name);
        }
    }
    // "txt" and "sha256" are behind the numbers of slices, the archive is before its sums.
    std::sort(names.begin(), names.end());
    if (is_set) {
        std::reverse(names.begin(), names.end());
    }
    return names;
}

std::string HintAtRoom(const std::string& path, uint64_t bytes) {
    return Space(path).free < std::max<uint64_t>(bytes, 1) ? "; make room" : "";
}

}  // namespace peltexctl
