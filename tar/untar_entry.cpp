// What an entry becomes on disk, or in the list.
// Tested by tests/tar/untar_file_test.cpp.
#include "tar/untar_entry.h"

#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "tar/untar_file.h"

namespace android::installd {

namespace {

// Patches that an application downloads for itself; they belong to the version it came from.
constexpr char kTinkerPath[] = "/com.tencent.mm/tinker/";

bool isRegular(char typeflag) {
    return typeflag == TYPE_REGULAR || typeflag == TYPE_REGULAR_OLD ||
           typeflag == TYPE_FIRST_PART || typeflag == TYPE_MIDDLE_PART ||
           typeflag == TYPE_LAST_PART;
}

bool isLaterPart(char typeflag) {
    return typeflag == TYPE_MIDDLE_PART || typeflag == TYPE_LAST_PART;
}

// Mode first: a change of owner takes set-id bits away, and archives have always come back so.
// Nothing is examined; an entry that refuses keeps what it has.
void applyOwnerAndMode(const char* path, uint32_t mode, unsigned int owner, unsigned int group) {
    chmod(path, mode);
    [[maybe_unused]] const int result = chown(path, owner, group);
}

// The same for a file that is still open.
void applyOwnerAndMode(int fd, uint32_t mode, unsigned int owner, unsigned int group) {
    fchmod(fd, mode);
    [[maybe_unused]] const int result = fchown(fd, owner, group);
}

// Returns how much there is, `size` at most.
size_t readAt(int fd, char* buffer, size_t size, int64_t position) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count =
            pread(fd, buffer + done, size - done, position + static_cast<int64_t>(done));
        if (count <= 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

}  // namespace

bool UnTarFile::FilterDir(const char* path) {
    if (strstr(path, kTinkerPath) == nullptr) {
        return false;
    }
    ALOGE("UnTarFile::filterDir ignore tinker dir: %s", path);
    return true;
}

UnTarFile::Next UnTarFile::unpackEntry(const Entry& entry, char* path) {
    if (isRegular(entry.typeflag)) {
        return unpackFile(entry, path);
    }
    switch (entry.typeflag) {
        case TYPE_SYMLINK:
            unpackLink(entry, path);
            return Next::kHeader;  // links have no data, whatever their size says
        case TYPE_DIRECTORY:
            unpackDirectory(entry, path);
            return Next::kHeader;
        default:
            return skipData(entry);
    }
}

void UnTarFile::unpackLink(const Entry& entry, const char* path) {
    unlink(path);
    [[maybe_unused]] int result = symlink(entry.linkName, path);
    result = lchown(path, entry.owner, entry.group);
}

void UnTarFile::unpackDirectory(const Entry& entry, char* path) {
    if (FilterDir(path)) {
        if (entry.hasLongName) {
            return;
        }
    } else {
        CreateDir(path, entry.mode);
    }
    applyOwnerAndMode(path, entry.mode, entry.owner, entry.group);
}

UnTarFile::Next UnTarFile::unpackFile(const Entry& entry, char* path) {
    UniqueFile target(FilterDir(path) ? nullptr : CreateFile(path, entry.mode, entry.typeflag));
    if (target == nullptr) {
        ALOGE("create file fail!skip!");
        const Next next = skipData(entry);
        applyOwnerAndMode(path, entry.mode, entry.owner, entry.group);
        return next;
    }
    bool isAborted = false;
    const bool isComplete = copyContent(entry, target.get(), isAborted);
    if (!isComplete) {
        target.reset();
        unlink(path);
        return isAborted ? Next::kEnd : skipData(entry);
    }
    applyOwnerAndMode(fileno(target.get()), entry.mode, entry.owner, entry.group);
    target.reset();
    return skipData(entry);
}

// Its stream has no buffer: whole chunks go to it, and what is written is with the file system.
// Returns false when the content is to be thrown away again: it came up short, or the task was
// aborted.
bool UnTarFile::copyContent(const Entry& entry, FILE* target, bool& isAborted) {
    setvbuf(target, nullptr, _IONBF, 0);
    if (m_copyBuffer == nullptr) {
        m_copyBuffer.reset(new (std::nothrow) char[kContentChunk]);
    }
    // A size beyond the signed range counts as below 1, too.
    if (m_copyBuffer == nullptr || static_cast<int64_t>(entry.size) < 1) {
        return true;  // the file stays empty
    }
    // The stream would copy the beginning and the end of a large content through its buffer.
    const bool isPastBuffer = entry.size >= kStreamBuffer;
    for (uint64_t remaining = entry.size; remaining > 0;) {
        const auto chunk =
            static_cast<size_t>(std::min(remaining, static_cast<uint64_t>(kContentChunk)));
        const auto position = entry.dataPosition + static_cast<int64_t>(entry.size - remaining);
        const size_t got = isPastBuffer
                               ? readAt(fileno(m_tarFp.get()), m_copyBuffer.get(), chunk, position)
                               : fread(m_copyBuffer.get(), 1, chunk, m_tarFp.get());
        if (got != chunk) {
            ALOGE("read file content shorter than expect!\n");
            return false;
        }
        if (fwrite(m_copyBuffer.get(), 1, chunk, target) != chunk) {
            ALOGE("write file content shorter than expect!\n");
            return false;
        }
        remaining -= chunk;
        if (m_callBack == nullptr) {
            continue;
        }
        if (m_callBack->IsAborted()) {
            ALOGD("aborded in unTar task.");
            isAborted = true;
            return false;
        }
        // The size of the header, not of the chunk: clients know a restore's progress this way.
        m_callBack->OnTaskProgress(kBlockSize);
    }
    return true;
}

UnTarFile::Next UnTarFile::listEntry(const Entry& entry, EParseType type, const char* path) {
    Next next = Next::kHeader;
    if (type == PARSE_LIST && isRegular(entry.typeflag)) {
        m_fileNames.add(entry.name);
        m_fileSizes.add(static_cast<int64_t>(entry.size));
        m_dataOffsets.add(entry.dataPosition);
        next = skipData(entry);
    }
    if (!entry.hasLongName && !entry.hasLongLink) {
        applyOwnerAndMode(path, entry.mode, entry.owner, entry.group);
    }
    return next;
}

FILE* CreateFile(char* path, uint32_t mode, char typeflag) {
    const char* openMode = "wb+e";
    if (isLaterPart(typeflag)) {
        ALOGE("CreateFile:appending this file\n");
        openMode = "ab+e";
    }
    FILE* file = fopen(path, openMode);
    char* slash = strrchr(path, '/');
    if (file != nullptr || slash == nullptr) {
        return file;
    }
    *slash = '\0';
    std::string parent = path;
    *slash = '/';
    if (!parent.empty() && parent.back() == '/') {
        parent.pop_back();
    }
    if (access(parent.c_str(), F_OK) != 0) {
        mkdir(parent.c_str(), mode);
    }
    return fopen(path, "wb+e");
}

int CreateDir(char* path, uint32_t mode) {
    const size_t length = strlen(path);
    if (length > 0 && path[length - 1] == '/') {
        path[length - 1] = '\0';
    }
    return access(path, F_OK) == 0 ? 0 : mkdir(path, mode);
}

}  // namespace android::installd
