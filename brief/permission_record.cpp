// Tested by tests/unit/records.md.
#define LOG_TAG "BackupSessionFileOps"

#include "brief/permission_record.h"

#include <errno.h>
#include <log/log.h>
#include <selinux/android.h>
#include <string.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/numbers.h"
#include "bounded/bounded.h"

namespace android::installd {

namespace {

constexpr size_t kShortestLine = 4;
constexpr mode_t kPermissionBits = 07777;
// Decimal, not octal, on purpose: what lies between the two goes on to chmod, which masks it.
constexpr int32_t kLargestMode = 7777;

// Takes the fields of a line off its end, one by one.
class LineEnd {
  public:
    explicit LineEnd(char* line) : mLine(line), mEnd(line + strlen(line)) {}

    // The text between the nearest separator and the present end, or all that is left when there is
    // no separator; the line's first character is never taken for one.
    const char* takeField() {
        for (char* c = mEnd - 1; c > mLine; --c) {
            if (*c == ';') {
                *c = '\0';
                mEnd = c;
                return c + 1;
            }
        }
        mAllTaken = true;
        return mLine;
    }

    bool isAllTaken() const { return mAllTaken; }

  private:
    char* const mLine;
    char* mEnd;
    bool mAllTaken = false;
};

bool parseModifiedTime(const char* text, File_info& info) {
    info.modified_time = parseNumber(text);
    if (info.modified_time < 0) {
        ALOGE("failed to get modified_time");
        return false;
    }
    return true;
}

bool parseSize(const char* text, File_info& info) {
    info.size = parseNumber(text);
    if (info.size < 0) {
        ALOGE("failed to get size");
        return false;
    }
    return true;
}

bool parseType(const char* text, File_info& info) {
    if (text[0] == '\0') {
        ALOGE("type is NULL or length of type is 0");
    }
    info.type = strcmp(text, "1") == 0 ? 1 : 0;
    return true;
}

bool parseMode(const char* text, File_info& info) {
    if (text[0] == '\0') {
        ALOGE("mode is NULL or length of mode is 0");
    } else {
        info.mode = static_cast<int32_t>(parseNumber(text));
        if (info.mode >= 0 && info.mode <= kLargestMode) {
            return true;
        }
        ALOGE("invalid mode %d", info.mode);
    }
    info.mode = -1;
    ALOGE("failed to get mod");
    return false;
}

// Records are applied with chmod, which follows links: only what is a file or directory itself is
// accepted.
bool if_file_type_legal(const char* path) {
    struct stat status = {};
    if (lstat(path, &status) != 0) {
        ALOGE("if_file_type_legal %s error is [%s]\n", path, ErrorText().c_str());
        return false;
    }
    return S_ISDIR(status.st_mode) || S_ISREG(status.st_mode);
}

bool parsePath(const char* text, File_info& info) {
    if (!if_file_type_legal(text)) {
        return false;
    }
    // One byte stays for the NUL, which is there since the structure was cleared.
    if (memcpy_s(info.path, sizeof(info.path) - 1, text, strlen(text)) != 0) {
        ALOGE("failed to get path");
        return false;
    }
    return true;
}

using FieldParser = bool (*)(const char* text, File_info& info);
constexpr FieldParser kFieldsFromTheEnd[] = {parseModifiedTime, parseSize, parseType, parseMode};

// Reads the logical lines of an attribute file: physical lines, joined where a newline is part of a
// path, which shows in that the next one does not begin with "/".
class AttributeLines {
  public:
    explicit AttributeLines(FILE* file) : mFile(file) {}

    // Reads the next line into `line`, with its newline, or cut at 2047 characters; what is behind
    // the cut is the next line. Returns false at the end of the file.
    bool next(char (&line)[kRecordSize]) {
        size_t length = 0;
        line[0] = '\0';
        while (fgets(line + length, static_cast<int>(kRecordSize - length), mFile) != nullptr) {
            length += strlen(line + length);
            if (length == kRecordSize - 1) {
                ALOGW("enough data in this line, maybe too long ?");
                return true;
            }
            const int following = fgetc(mFile);
            if (following == EOF) {
                return true;
            }
            if (following == '/') {
                ungetc(following, mFile);
                return true;
            }
            line[length] = static_cast<char>(following);
            line[++length] = '\0';
        }
        return length > 0;
    }

  private:
    FILE* const mFile;
};

int applyLine(char* line) {
    if (line[0] != '/') {
        line[0] = '\0';
    }
    File_info info;
    if (parse_line_info(line, info) < kRecordFields) {
        ALOGE("miss info from this line(%s), skip it", line);
        return -1;
    }
    if (process_info(info) != 0) {
        ALOGE("process_info [%s] error [%d].", info.path, errno);
        return -1;
    }
    return 0;
}

// Relabels for the owner that the directory has by now.
int do_se_restorecon_pkgdir(const char* pkgdir, const char* se_info) {
    struct stat status = {};
    if (stat(pkgdir, &status) != 0) {
        const KeepErrno error;
        ALOGE("do_se_restorecon_pkgdir stat [%s] error [%s].", pkgdir, ErrorText().c_str());
        return -1;
    }
    if (selinux_android_restorecon_pkgdir(pkgdir, se_info, status.st_uid,
                                          SELINUX_ANDROID_RESTORECON_RECURSE) < 0) {
        const KeepErrno error;
        ALOGE("Failed recursive restorecon for %s , se_info(%s), uid(%d), error [%s]\n", pkgdir,
              se_info, static_cast<int>(status.st_uid), ErrorText().c_str());
        return -1;
    }
    return 0;
}

}  // namespace

int do_backup_perm(const char* path, FILE* stream) {
    return do_backup_perm(Place(path), stream);
}

int do_backup_perm(const Place& entry, FILE* stream) {
    struct stat status = {};
    if (fstatat(entry.dirFd(), entry.name(), &status, 0) != 0) {
        const KeepErrno error;
        ALOGE("stat [%s] error [%d]\n", entry.path(), errno);
        return -1;
    }
    return do_backup_perm(entry.path(), status, stream);
}

int do_backup_perm(const char* path, const struct stat& status, FILE* stream) {
    char record[kRecordSize] = {};
    const int length = snprintf_s(
        record, sizeof(record), sizeof(record) - 1, "%s;%d;%d;%ld;%ld%s", path,
        static_cast<int>(status.st_mode & kPermissionBits), S_ISDIR(status.st_mode) ? 1 : 0,
        static_cast<long>(status.st_size), static_cast<long>(status.st_mtime), "\n");
    if (length < 0) {
        const KeepErrno error;
        ALOGE("sprintf permisson [%s] error [%d]", record, errno);
        return -1;
    }
    if (fwrite(record, 1, static_cast<size_t>(length), stream) < static_cast<size_t>(length)) {
        ALOGE("write permisson [%s] error [%s]", record, ErrorText().c_str());
    }
    return 0;
}

int parse_line_info(char* line, File_info& info) {
    const size_t length = strlen(line);
    if (length < kShortestLine) {
        return -1;
    }
    memset_s(&info, sizeof(info), 0, sizeof(info));
    if (line[length - 1] == ';') {
        ALOGW("line ends with invalid character, skip this line");
        return 0;
    }
    LineEnd end(line);
    int fields = 0;
    for (const FieldParser parse : kFieldsFromTheEnd) {
        const char* text = end.takeField();
        if (!parse(text, info)) {
            ALOGW("handle one line failed, skip this line");
            return -1;
        }
        ++fields;
        if (end.isAllTaken()) {
            return fields;
        }
    }
    if (!parsePath(line, info)) {
        ALOGW("handle one line failed, skip this line");
        return -1;
    }
    return fields + 1;
}

int process_info(const File_info& info) {
    if (chmod(info.path, static_cast<mode_t>(info.mode)) != 0) {
        const KeepErrno error;
        ALOGE("do_chmod [%s] error [%s].", info.path, ErrorText().c_str());
        return -1;
    }
    return 0;
}

int restore_application_from_infofile(const char* pkgdir, const char* info_file,
                                      const char* se_info) {
    if (info_file == nullptr) {
        ALOGE("info_file is NULL");
        return -1;
    }
    UniqueFile file(fopen(info_file, "re"));
    if (file == nullptr) {
        ALOGE("failed to open info_file");
        return -1;
    }
    AttributeLines lines(file.get());
    char line[kRecordSize];
    while (lines.next(line)) {
        if (applyLine(line) != 0) {
            return -1;
        }
    }
    file.reset();
    if (do_se_restorecon_pkgdir(pkgdir, se_info) != 0) {
        ALOGE("do_se_restorecon_pkgdir [%s] error [%d].", pkgdir, errno);
        return -1;
    }
    return 0;
}

}  // namespace android::installd
