// Tested by tests/unit/archives.md.
#include "tar/entry_unpacker.h"

#include <log/log.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "base/owner_mapping.h"

namespace android::installd {

namespace {

// Patches that an application downloads for itself; they belong to the version it came from.
constexpr char kTinkerPath[] = "/com.tencent.mm/tinker/";

bool isLaterPart(char typeflag) {
    return typeflag == TYPE_MIDDLE_PART || typeflag == TYPE_LAST_PART;
}

struct Owner {
    unsigned int uid;
    unsigned int gid;
};

Owner ownerOf(const TarEntry& entry, uint32_t target) {
    Owner owner = {};
    owner.uid = fixup_owner_dir_file(entry.uid, entry.gid, target, owner.gid);
    return owner;
}

}  // namespace

bool isRegular(char typeflag) {
    return typeflag == TYPE_REGULAR || typeflag == TYPE_REGULAR_OLD ||
           typeflag == TYPE_FIRST_PART || isLaterPart(typeflag);
}

bool isIgnoredPatch(const char* path) {
    if (strstr(path, kTinkerPath) == nullptr) {
        return false;
    }
    ALOGE("UnTarFile::filterDir ignore tinker dir: %s", path);
    return true;
}

// Mode first: the change of owner then takes set-id bits away, which no unpacked file is to have.
void EntryUnpacker::applyOwnerAndMode(const TarEntry& entry, const char* path) {
    const Owner owner = ownerOf(entry, m_uid);
    chmod(path, entry.mode);
    [[maybe_unused]] const int result = chown(path, owner.uid, owner.gid);
}

bool EntryUnpacker::unpack(const TarEntry& entry, char* path) {
    if (isRegular(entry.typeflag)) {
        return unpackFile(entry, path);
    }
    switch (entry.typeflag) {
        case TYPE_SYMLINK:
            unpackLink(entry, path);
            return true;  // links have no data, whatever their size says
        case TYPE_DIRECTORY:
            unpackDirectory(entry, path);
            return true;
        default:
            m_reader.skipData(entry);
            return true;
    }
}

void EntryUnpacker::unpackLink(const TarEntry& entry, const char* path) {
    const Owner owner = ownerOf(entry, m_uid);
    unlink(path);
    [[maybe_unused]] int result = symlink(entry.linkName.c_str(), path);
    result = lchown(path, owner.uid, owner.gid);
}

void EntryUnpacker::unpackDirectory(const TarEntry& entry, char* path) {
    if (isIgnoredPatch(path)) {
        if (entry.hasLongName) {
            return;
        }
    } else {
        CreateDir(path, entry.mode);
    }
    applyOwnerAndMode(entry, path);
}

bool EntryUnpacker::unpackFile(const TarEntry& entry, char* path) {
    UniqueFile target(isIgnoredPatch(path) ? nullptr
                                           : CreateFile(path, entry.mode, entry.typeflag));
    if (target == nullptr) {
        ALOGE("create file fail!skip!");
        applyOwnerAndMode(entry, path);
        m_reader.skipData(entry);
        return true;
    }
    const Copied copied = copyContent(entry, target.get());
    if (copied == Copied::kWhole) {
        // By the descriptor, as applyOwnerAndMode does by the path.
        const Owner owner = ownerOf(entry, m_uid);
        fchmod(fileno(target.get()), entry.mode);
        [[maybe_unused]] const int result = fchown(fileno(target.get()), owner.uid, owner.gid);
    }
    target.reset();
    if (copied != Copied::kWhole) {
        unlink(path);
    }
    m_reader.skipData(entry);
    return copied != Copied::kAborted;
}

// The target's stream gets no buffer: whole chunks go to it, and what is written is with the file
// system.
EntryUnpacker::Copied EntryUnpacker::copyContent(const TarEntry& entry, FILE* target) {
    setvbuf(target, nullptr, _IONBF, 0);
    if (m_copyBuffer == nullptr) {
        m_copyBuffer.reset(new (std::nothrow) char[kContentChunk]);
    }
    // A size beyond the signed range counts as below 1, too.
    if (m_copyBuffer == nullptr || static_cast<int64_t>(entry.size) < 1) {
        return Copied::kWhole;  // the file stays empty
    }
    for (uint64_t done = 0; done < entry.size;) {
        const auto chunk =
            static_cast<size_t>(std::min(entry.size - done, static_cast<uint64_t>(kContentChunk)));
        if (m_reader.readData(entry, done, m_copyBuffer.get(), chunk) != chunk) {
            ALOGE("read file content shorter than expect!\n");
            return Copied::kShort;
        }
        if (fwrite(m_copyBuffer.get(), 1, chunk, target) != chunk) {
            ALOGE("write file content shorter than expect!\n");
            return Copied::kShort;
        }
        done += chunk;
        if (m_callBack.IsAborted()) {
            ALOGD("aborded in unTar task.");
            return Copied::kAborted;
        }
        // The size of the header, not of the chunk: clients know a restore's progress this way.
        m_callBack.OnTaskProgress(kBlockSize);
    }
    return Copied::kWhole;
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
