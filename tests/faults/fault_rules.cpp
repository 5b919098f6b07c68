#include "tests/faults/fault_rules.h"

#include <fnmatch.h>
#include <string.h>

#include <algorithm>
#include <utility>

namespace peltex_test {

using namespace android::installd;

namespace {

constexpr unsigned bit(BackupTaskType type) {
    return 1u << type;
}

constexpr unsigned BF = bit(BACKUP_FILE), BD = bit(BACKUP_DIR), BT = bit(BACKUP_TAR),
                   BS = bit(BACKUP_SPLIT), RF = bit(RESTORE_FILE), RD = bit(RESTORE_DIR),
                   RT = bit(RESTORE_TAR), RS = bit(RESTORE_SPLIT), MV = bit(MOVE_DIR),
                   BY = bit(BACKUP_BY_FILE), GD = bit(GET_BRIEFS_BY_DIR),
                   GF = bit(GET_BRIEFS_BY_FILE);
constexpr unsigned kAll = (1u << kTaskKinds) - 1;
constexpr unsigned kFiles = BF | RF;       // one file is copied
constexpr unsigned kTrees = BD | RD | MV;  // a tree is copied
constexpr unsigned kCopies = kFiles | kTrees | BY;
constexpr unsigned kPacks = BT | BS;
constexpr unsigned kUnpacks = RT | RS;
constexpr unsigned kBriefs = GD | GF;

constexpr Outcome F = Outcome::kFails, L = Outcome::kLoses, U = Outcome::kUnharmed;

// The first row that fits a call is its rule. A place is "source", "destination" or a pattern for
// the path below the root, whose '*' stands for slashes too; the directories above the root have a
// path of "". A '!' before it: the entry is not there.
constexpr Rule kRules[] = {
    // Whether something is there. A refused question reads as "no"; for what is missing that is
    // true. A missing directory is made, and there is one already.
    {kAll, Op::kAccess, "!*", 0, U, nullptr},
    {kAll & ~GD, Op::kAccess, "source", 1, F, "prepareTask error, %s not exists"},
    {kAll, Op::kAccess, "destination", 1, U, nullptr},
    {kFiles, Op::kAccess, "source", 0, F, "Failed to copyFile file: %s, error=%e"},
    {kFiles, Op::kAccess, "destination", 0, F, "Failed to open file: %s, error=Is a directory"},
    {BT, Op::kAccess, "source", 0, F, "backupTarBase, source path %s not exist!"},
    {BS, Op::kAccess, "source", 0, F, "backupSplitTarBase: source path %s not exist!"},
    {kUnpacks, Op::kAccess, "source", 0, F, "restoreTarBase, source path %s not exist!"},
    {RS, Op::kAccess, "in/*.tar.?", 0, F, "slice tar file %s don't exist, error:%e"},
    {kUnpacks, Op::kAccess, "out*", 0, U, nullptr},
    {GD, Op::kAccess, "source", 1, L, "GetFileBriefsByDir: %s not exists"},
    {GF, Op::kAccess, "source", 0, F, "GetFileBriefsByFile: %s not exists"},
    {GF, Op::kAccess, "in/app", 1, L, nullptr},
    {GF, Op::kAccess, "in/one.f", 0, L, nullptr},
    {kBriefs, Op::kAccess, "in/*", 0, F, "Failed to PreCheckForWriteBrief,%s not exists"},
    {MV, Op::kAccess, "source", 3, L, nullptr},
    {MV, Op::kAccess, "in/*.d", 2, U, nullptr},
    {kTrees | BY, Op::kAccess, "in/*.f", 0, L, "Failed to copyFile file: %s, error=%e"},
    {MV, Op::kAccess, "in/*", 0, U, nullptr},
    {kAll, Op::kAccess, "*", 0, Outcome::kEither, "Failed to mkdir(%s), error=File exists"},

    // What it is.
    {kPacks, Op::kStat, "source", 0, F, "failed to get stat of src dir: %s, error: %e"},
    {kPacks, Op::kStat, "out/*.tar*", 0, F, "failed to get stat of tar file: %s, error: %e"},
    {RS, Op::kStat, "in/*.tar.?", 0, F, "failed to get stat of tar file: %s, error: %e"},
    {RD, Op::kStat, "out/app", 0, U, "do_se_restorecon_pkgdir stat [%s] error [%e]."},
    {kBriefs, Op::kStat, "in/*.f", 2, L, "stat [%s] error [5]"},
    {BD | BY | kBriefs, Op::kStat, "in/*", 0, F, "stat [%s] error [5]"},
    {kFiles, Op::kLstat, "destination", 0, F, "Failed to open file: %s, error=Is a directory"},
    {BS, Op::kLstat, "in/app/big.f", 2, F, "TarFile::FillSplitHeaderBlocks lstat %s error!"},
    {BS, Op::kLstat, "in/app/big.f", 3, F, "TarFile::FillSplitHeaderBlocks lstat %s error!"},
    {kPacks, Op::kLstat, "in/*", 0, F, "failed to get stat of file: %s, error: %e"},
    {kTrees | kBriefs, Op::kLstat, "in/*.l", 0, U, "Failed to isDir, lstat(%s), error=%e"},
    {GF, Op::kLstat, "in/one.f", 0, U, "Failed to isDir, lstat(%s), error=%e"},
    {kTrees | kBriefs, Op::kLstat, "in/*", 1, L, "Failed to isDir, lstat(%s), error=%e"},
    {BY, Op::kLstat, "in/*", 1, L, "if_file_type_legal %s error is [%e]"},
    {kTrees | BY | GD | GF, Op::kLstat, "in/*.f", 2, L,
     "Failed to filterFile, lstat(%s), error=%e"},
    {RD, Op::kLstat, "out/*", 0, L, "restore failed, restore file info from"},
    {BY, Op::kFstat, "source", 1, F, "srcBriefFp or attrFp is nullptr"},
    {kUnpacks, Op::kFstat, "in/*.tar*", 0, Outcome::kEither, "restoreTarBase, unPack error"},
    {kAll, Op::kFstat, "*.t*", 0, U, nullptr},

    // Directories are walked to their end.
    {MV, Op::kOpenDir, "source", 2, F, "move failed, deleteDir error!"},
    {MV, Op::kOpenDir, "in/*.d", 2, U, nullptr},
    {kTrees, Op::kOpenDir, "in/*", 0, F, "Failed to copyDir, opendir(%s) error"},
    {kPacks, Op::kOpenDir, "in/*", 0, F, "TarFile::PackDir, failed to open dir: %s, err: %e"},
    {kBriefs, Op::kOpenDir, "in/*", 0, F, "Failed to WriteBriefUnderDir, opendir(%s) error"},
    {MV, Op::kReadDir, "in/*", 3, U, nullptr},
    {MV, Op::kReadDir, "in/*", 4, U, nullptr},
    {kTrees, Op::kReadDir, "in/*", 0, F, "Failed to copyDir, readdir(%s) error"},
    {kPacks, Op::kReadDir, "in/*", 0, F, "TarFile::PackDir, failed to read dir: %s, err: %e"},
    {kBriefs, Op::kReadDir, "in/*", 0, F, "Failed to WriteBriefUnderDir, readdir(%s) error"},
    {kPacks, Op::kReadLink, "in/*.l", 0, F, "TarFile::PackDir, failed to readlink: %s, error: %e"},
    {kPacks, Op::kShortReadLink, "in/*.l", 0, L, nullptr},
    {kAll, Op::kReadLink, "*", 0, U, nullptr},
    {kAll, Op::kOpenPath, "*", 0, U, nullptr},
    {kAll, Op::kShortReadLink, "*", 0, U, nullptr},

    // Files that are read.
    {kFiles, Op::kOpen, "source", 0, F, "Failed to open file: %s, error=%e"},
    {kTrees | BY, Op::kOpen, "in/*.f", 0, L, "Failed to open file: %s, error=%e"},
    {kPacks, Op::kOpen, "in/*.f", 0, F, "TarFile::PackDir, failed to open src file: %s"},
    {RD, Op::kOpen, "in/*.txt", 0, L, "failed to open info_file"},
    {RT, Op::kOpen, "source", 0, F, "read tar happened error!"},
    {RS, Op::kOpen, "source", 1, U, nullptr},
    {RS, Op::kOpen, "source", 0, F, "open check file %s error ,error:%e"},
    {RS, Op::kOpen, "in/*.tar.?", 0, L, nullptr},
    {BY, Op::kOpen, "source", 0, F, "srcBriefFp or attrFp is nullptr"},
    {GF, Op::kOpen, "source", 0, F, "failed to open searchFile"},
    {kCopies, Op::kRead, "in/*.f", 0, F, "Failed to read file: %s, error=%e"},
    {kPacks, Op::kRead, "in/*.f", 0, F, "TarFile::PackDir, failed to read src file: %s"},
    {kUnpacks, Op::kRead, "in/*.tar*", 0, Outcome::kAny, " short"},
    {RS, Op::kRead, "source", 0, F, "UnTarFile::UnSplitPack, handleCheckFile %s, num "},
    {BY, Op::kRead, "source", 0, F, "backup failed,GetBackupFileAndProcess error"},
    {GF, Op::kRead, "source", 0, F, "GetIncludeAndExcludeFolder failed"},
    {RD, Op::kRead, "in/*.txt", 0, L, nullptr},
    {kAll, Op::kShortRead, "in/*", 0, U, nullptr},
    {kUnpacks, Op::kSeek, "in/*", 0, Outcome::kEither, "restoreTarBase, unPack error"},
    {kAll, Op::kSeek, "in/*", 0, U, nullptr},

    // Files that are written. What a copy has written is not looked at; an archive's failed write
    // is, and so is what a record's last flush comes to.
    {kFiles, Op::kCreate, "out/*", 0, F, "Failed to open file: %s, error=%e"},
    {BD | BY, Op::kCreate, "out/*.txt", 0, F, "backup failed,fopen [%s] error"},
    {kTrees | BY, Op::kCreate, "out/*.f", 0, L, "Skip inaccessible file %s, error="},
    {BT, Op::kCreate, "out/*.tar", 0, F, "failed to open tar file: %s, error: %e"},
    {BS, Op::kCreate, "out/*.tar.?", 0, F, "failed to open tar file: %s, error: %e"},
    {BS, Op::kCreate, "out/*.txt", 0, F, "open splitted tar info file: %s, error: %e"},
    {RS, Op::kCreate, "out/big.f", 2, L, nullptr},
    {RT, Op::kCreate, "out/*/missing.d/b.f", 2, L, "create file fail!skip!"},
    {kUnpacks, Op::kCreate, "out/*", 0, U, nullptr},
    {kBriefs, Op::kCreate, "destination", 1, F, "CreateAndFixupBriefFile:fopen [%s] error"},
    {GD, Op::kCreate, "destination", 2, F, "GetFileBriefsByDir:fopen [%s] error"},
    {GF, Op::kCreate, "destination", 2, F, "GetFileBriefsByFile:fopen [%s] error"},
    {kCopies, Op::kWrite, "out/*.f", 0, L, nullptr},
    {kCopies, Op::kShortWrite, "out/*.f", 0, L, nullptr},
    {BD | BY | kBriefs, Op::kWrite, "out/*.txt", 1, L, "write permisson ["},
    {BD | BY | kBriefs, Op::kWrite, "out/*.txt", 2, F, "save attr file error!"},
    {BT, Op::kWrite, "out/*.tar", 0, F, "TarFile::PackDir, failed to write "},
    {BS, Op::kWrite, "out/*.tar.?", 0, F, "failed to write "},
    {BS, Op::kWrite, "out/*.txt", 0, F, "TarFile::createCheckFile:write split tar info error"},
    {kUnpacks, Op::kWrite, "out/*.f", 0, L, "write file content shorter than expect!"},
    {kAll, Op::kShortWrite, "out/*", 0, U, nullptr},
    {kAll, Op::kSync, "*", 0, U, nullptr},
    {kAll, Op::kClose, "*", 0, U, nullptr},

    // What is made and what it becomes. Extraction looks at none of it.
    {kUnpacks, Op::kMkdir, "out/*", 0, L, nullptr},
    {kAll, Op::kMkdir, "out*", 0, F, "Failed to mkdir(%s), error=%e"},
    {kUnpacks, Op::kSymlink, "out/*", 0, L, nullptr},
    {kUnpacks, Op::kRemove, "!out/*", 0, U, nullptr},
    {RS, Op::kRemove, "in/*.tar.?", 0, U, nullptr},
    {MV, Op::kRemove, "source", 0, F, "Failed to deleteDir, remove(%s) error"},
    {MV, Op::kRemove, "in/*", 0, U, nullptr},
    {kUnpacks, Op::kChmod, "out/*", 0, L, nullptr},
    {kUnpacks, Op::kChown, "out/*", 0, L, nullptr},
    {RD, Op::kChmod, "out/*", 2, L, "do_chmod [%s] error [%e]."},
    {BT, Op::kChmod, "out/*.tar", 0, F, "backupTarBase failed to change attr_file(%s) owner"},
    {BT, Op::kChown, "out/*.tar", 0, F, "backupTarBase failed to change attr_file(%s) owner"},
    {BS, Op::kChmod, "out/*.tar*", 0, F, "FixAttrForSeLinux failed to change attr_file(%s) owner"},
    {BS, Op::kChown, "out/*.tar*", 0, F, "FixAttrForSeLinux failed to change attr_file(%s) owner"},
    {kAll, Op::kChmod, "out/*.txt", 0, F, "Failed to change attr_file(%s) owner, error="},
    {kAll, Op::kChown, "out/*.txt", 0, F, "Failed to change attr_file(%s) owner, error="},
    {kAll, Op::kChmod, "out/*.f", 0, F, "Failed to change mod, error=%e"},
    {kAll, Op::kChown, "out/*.f", 0, F, "Failed to change owner, error=%e"},
    {kAll, Op::kChmod, "out*", 0, F, "Failed to chmod (%s), error=%e"},
    {kAll, Op::kChown, "out*", 0, F, "Failed to chown (%s), error=%e"},

    // Buffers, by their size: of contents, of a path; of a stream, which has one of its own.
    {kPacks, Op::kAllocate, "524288", 0, F, "failed to alloc io buffer, size: 524288"},
    {kUnpacks, Op::kAllocate, "524288", 0, L, nullptr},
    {kUnpacks, Op::kAllocate, "2048", 0, F, "restoreTarBase, unPack error return -4."},
    {kAll, Op::kAllocate, "*", 0, U, nullptr},

    // Labels.
    {BF | BD | MV | BY, Op::kRelabel, "*", 0, U, "restorecon_backup_dir error!  ignore that."},
    {BT, Op::kRelabel, "*", 0, F, "backupTarBase failed, prepare_data_backuped_for_task error!"},
    {BS, Op::kRelabel, "*", 0, F, "FixAttrForSeLinux failed, restorecon_backup_dir %s error!"},
    {RD, Op::kRelabel, "*", 0, U, "restore failed, restore file info from"},
    {kUnpacks, Op::kRelabel, "*", 0, U, "restorecon_backup_dir failed, ignore that."},
};

std::string below(const std::string& root, const std::string& path) {
    return path.size() > root.size() ? path.substr(root.size() + 1) : "";
}

bool isDirectory(const std::string& place) {
    return place.empty() || fnmatch("*/app", place.c_str(), 0) == 0 ||
           fnmatch("*.d", place.c_str(), 0) == 0;
}

// A descriptor of a directory is looked at when a stream is made of it.
Op actOf(Op op, const std::string& place) {
    return op == Op::kFstat && isDirectory(place) ? Op::kOpenDir : op;
}

bool fits(const char* pattern, const TaskKind& kind, const std::string& place, bool existed) {
    if (pattern[0] == '!') {
        return !existed && fits(pattern + 1, kind, place, true);
    }
    return (strcmp(pattern, "source") == 0 && place == kind.source) ||
           (strcmp(pattern, "destination") == 0 && place == kind.destination) ||
           fnmatch(pattern, place.c_str(), 0) == 0;
}

// How many descriptors the task may leave open: a brief of a directory its own.
int expectedOpen(const TaskKind& kind, const TaskRun& run) {
    if (kind.type != GET_BRIEFS_BY_DIR || holds(run.errors, "save attr file error!")) {
        return 0;
    }
    return static_cast<int>(std::count_if(
               run.calls.begin(), run.calls.end(),
               [](const Call& call) { return call.op == Op::kCreate && call.result >= 0; })) /
           2;
}

std::string contentOf(const std::string& entry) {
    return entry.substr(entry.find('\n') + 1);
}

// What the task was given stays as it is; what it takes away has gone to where it belongs.
bool isSourceKept(const TaskKind& kind, const TaskRun& run) {
    for (const auto& [name, entry] : run.before) {
        const auto kept = run.in.find(name);
        const bool isKept = kept != run.in.end() && contentOf(kept->second) == contentOf(entry);
        if (kind.type == MOVE_DIR) {
            const auto moved = run.out.find(name);
            if (!isKept &&
                (moved == run.out.end() || contentOf(moved->second) != contentOf(entry))) {
                return false;
            }
        } else if (kind.type == RESTORE_SPLIT && kept == run.in.end()) {
            if (name.find(".tar.") == std::string::npos) {
                return false;
            }
        } else if (kept == run.in.end() || kept->second != entry) {
            return false;
        }
    }
    return true;
}

bool isAllowed(Outcome outcome, bool isFailed, bool isUnharmed) {
    switch (outcome) {
        case Outcome::kFails:
            return isFailed;
        case Outcome::kLoses:
            return !isFailed;
        case Outcome::kUnharmed:
            return isUnharmed;
        case Outcome::kEither:
            return isFailed || isUnharmed;
        case Outcome::kAny:
            return true;
    }
    return false;
}

}  // namespace

const Rule* ruleFor(const TaskKind& kind, const std::string& root, const std::vector<Call>& calls,
                    size_t index, Op fault) {
    const Call& call = calls[index];
    const std::string place = call.op == Op::kAllocate ? call.path : below(root, call.path);
    const Op op = actOf(fault, place);
    const auto isSame = [&](const Call& other) {
        return other.op == call.op && other.path == call.path;
    };
    const auto nth =
        std::count_if(calls.begin(), calls.begin() + static_cast<long>(index) + 1, isSame);
    const auto rule = std::find_if(std::begin(kRules), std::end(kRules), [&](const Rule& row) {
        return (row.tasks & bit(kind.type)) != 0 && row.op == op &&
               (row.nth == 0 || row.nth == nth) && fits(row.place, kind, place, call.existed);
    });
    return rule == std::end(kRules) ? nullptr : rule;
}

std::string textOf(const Rule& rule, const Call& call, Op fault) {
    std::string text = rule.text == nullptr ? "" : rule.text;
    const auto replace = [&text](const char* what, const std::string& with) {
        if (const size_t at = text.find(what); at != std::string::npos) {
            text.replace(at, strlen(what), with);
        }
    };
    replace("%s", call.path);
    replace("%e", strerror(errorOf(fault)));
    return text;
}

bool holds(const std::vector<std::string>& errors, const std::string& text) {
    return text.empty() || std::any_of(errors.begin(), errors.end(), [&](const std::string& line) {
               return line.find(text) != std::string::npos;
           });
}

bool isSameResult(const TaskRun& run, const TaskRun& reference) {
    return run.status == 0 && run.out == reference.out && run.briefSize == reference.briefSize &&
           run.slices == reference.slices;
}

void check(const TaskKind& kind, const TaskRun& run, const TaskRun& reference, const Rule& rule,
           const std::string& text, const Complaint& complain) {
    const bool isUnharmed = isSameResult(run, reference);
    const bool mayLose = rule.outcome == Outcome::kLoses || rule.outcome == Outcome::kAny;
    const bool mayBeSilent = rule.outcome == Outcome::kEither || rule.outcome == Outcome::kAny;
    if (run.status != 0 && run.status != -1) {
        complain("has not just one final status");
    } else if (!isAllowed(rule.outcome, run.status == -1, isUnharmed)) {
        complain("has another outcome, status " + std::to_string(run.status));
    }
    if (!(mayBeSilent && isUnharmed) && !holds(run.errors, text)) {
        complain("does not log \"" + text + "\"");
    }
    if (run.leftOpen != expectedOpen(kind, run)) {
        complain("leaves " + std::to_string(run.leftOpen) + " descriptors");
    }
    if ((kind.type != MOVE_DIR || !mayLose) && !isSourceKept(kind, run)) {
        complain("changes its source");
    }
    for (const auto& [name, content] : run.slices) {
        const auto whole = reference.slices.find(name);
        if (!mayLose && (whole == reference.slices.end() || whole->second != content)) {
            complain("has handed over a slice that is not whole: " + name);
        }
    }
    if (!run.isNextTaskDone) {
        complain("keeps the next task from its end");
    }
}

}  // namespace peltex_test
