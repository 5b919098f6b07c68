// Packs a tree that the input describes, whole or in slices, restores it and compares. The tree has
// to come back just when comesBack() says so: every header claims as many bytes as stand behind it,
// and nothing is named in a way that a restore refuses. docs/LIMITS.md tells which trees those are
// that do not come back; here the sizes that files get lie around those bounds.
//
// Entries are made first and get their sizes in the order in which the packer will meet them.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "base/owner_mapping.h"
#include "tar/tar_file.h"
#include "tar/tar_header.h"
#include "tar/untar_file.h"
#include "tests/fuzz/support/archive_input.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/fuzz/support/target.h"

namespace peltex_fuzz {

using namespace android::installd;

namespace {

constexpr long kBlock = kBlockSize;
constexpr long kChunk = kContentChunk;
constexpr long kMiB = 1 << 20;
constexpr size_t kMostEntries = 24;
constexpr size_t kMostDirectories = 5;  // one in the other, at worst: paths of up to 1.5 KiB
constexpr long kMostContent = 5 * kMiB / 2;
constexpr size_t kNameField = sizeof(tar_header::name);
constexpr size_t kLongestTarget = kTarPathSize - 2;
constexpr uid_t kUid = 10123;

struct Entry {
    std::string name;  // below the packed directory
    struct stat status;
    std::string target;  // of a link
};

long roundedDown(long size) {
    return size / kBlock * kBlock;
}

long roundedUp(long size) {
    return roundedDown(size + kBlock - 1);
}

std::string storedName(const Entry& entry) {
    return entry.name + (S_ISDIR(entry.status.st_mode) ? "/" : "");
}

bool isPacked(const std::string& path, const struct stat& status) {
    const bool isRegular = S_ISREG(status.st_mode);
    if (!S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode) && !isRegular) {
        return false;
    }
    const bool isDex =
        isRegular && path.size() > 4 && path.compare(path.size() - 4, 4, ".dex") == 0;
    return !isDex && (S_ISDIR(status.st_mode) || status.st_nlink == 1);
}

// How the packer lays entries out, as far as it matters here: where slices end, and whether each
// header claims as many bytes as follow it.
class Layout {
  public:
    // A slice size of 0 stands for one archive without slices.
    Layout(long slice, size_t rootLength) : mSlice(slice), mRootLength(rootLength) {}

    bool isTrue() const { return mIsTrue; }
    long left() const { return mSlice - mUsed; }

    void add(const Entry& entry) {
        if (!S_ISREG(entry.status.st_mode)) {
            mUsed += recordsSize(entry) + kBlock;
            look();
            return;
        }
        const long size = entry.status.st_size;
        const long claimed = firstClaim(entry, size);
        mUsed += recordsSize(entry) + kBlock;
        mHasUnseen = true;
        write(entry, size, claimed);
    }

    // The last slice is removed when nothing in it has been looked at, even if it holds headers.
    void end() { mIsTrue = mIsTrue && (mSlices == 0 || mSeen > 0 || !mHasUnseen); }

  private:
    static long recordSize(size_t length) {
        return length < kNameField ? 0 : kBlock + roundedUp(static_cast<long>(length) + 1);
    }
    static long recordsSize(const Entry& entry) {
        return recordSize(storedName(entry).size()) + recordSize(entry.target.size());
    }

    long room() const {
        const long raw = left();
        const bool addsChunk = raw == 0 || raw == kBlock || raw % kChunk > kBlock;
        return (raw / kChunk + (addsChunk ? 1 : 0)) * kChunk;
    }

    long firstClaim(const Entry& entry, long size) const {
        const auto length = static_cast<long>(mRootLength + 1 + entry.name.size());
        const bool isShort = length < static_cast<long>(kNameField);
        const long need = roundedDown(size) + (isShort ? kBlock : roundedDown(length) + 2 * kBlock);
        return mSlice == 0 || need <= room() ? size : room();
    }

    void write(const Entry& entry, long size, long claimed) {
        long part = 0;
        bool ended = false;
        for (long at = 0; at < size;) {
            const long chunk = std::min(size - at, kChunk);
            mUsed += chunk;
            part += chunk;
            at += chunk;
            if (!look()) {
                continue;
            }
            ended = ended || chunk < kChunk;
            if (at == size) {
                break;
            }
            mIsTrue = mIsTrue && part == claimed;
            part = 0;
            claimed = std::min(size - at, mSlice);
            mUsed += recordsSize(entry) + kBlock;
            look();
        }
        mIsTrue = mIsTrue && part == claimed;
        if (!ended) {
            mUsed += roundedUp(size) - size;
        }
    }

    // Whether what was written last has filled the slice, and a new one begins.
    bool look() {
        mSeen = mUsed;
        mHasUnseen = false;
        if (mSlice == 0 || mUsed < mSlice) {
            return false;
        }
        mUsed = 0;
        mSeen = 0;
        ++mSlices;
        return true;
    }

    const long mSlice;
    const size_t mRootLength;
    bool mIsTrue = true;
    long mUsed = 0;           // bytes of the present slice
    long mSeen = 0;           // of them, when it was last looked at
    bool mHasUnseen = false;  // headers that came since
    int mSlices = 0;          // finished
};

class RoundTrip {
  public:
    explicit RoundTrip(const std::string& input)
        : mInput(reinterpret_cast<const uint8_t*>(input.data()), input.size()),
          mSlice(mInput.ConsumeIntegralInRange<long>(0, 2) * kMiB),
          mUid(mInput.ConsumeBool() ? kUid : 0),
          mRoot("/src/" + std::string(mInput.ConsumeIntegralInRange<size_t>(1, 110), 'r')),
          mLayout(mSlice, mRoot.size()) {}

    void run() {
        makeEntries();
        walk("");
        mLayout.end();
        const bool isExpected = mSlice == 0 || mLayout.isTrue();
        const int result = mSlice == 0 ? packWhole() : packSlices();
        const std::string difference = result != 0 ? "result" : firstDifference();
        if (isExpected && hasGoodNames() && !difference.empty()) {
            fail("does not come back: %s (%d)", difference.c_str(), result);
        }
        if (!(isExpected && hasGoodNames()) && difference.empty()) {
            fail("comes back, though it should not");
        }
        checkListing();
    }

  private:
    void makeEntries() {
        makeDir(mRoot);
        std::vector<std::string> dirs = {mRoot};
        for (size_t i = 0; i < kMostEntries && mInput.remaining_bytes() > 0; ++i) {
            const std::string& parent =
                dirs[mInput.ConsumeIntegralInRange<size_t>(0, dirs.size() - 1)];
            const std::string path = parent + "/" + makeName(static_cast<char>('a' + i));
            switch (mInput.ConsumeIntegralInRange(0, 7)) {
                case 0:
                case 1:
                    if (dirs.size() <= kMostDirectories) {
                        makeDir(path, makeMode());
                        dirs.push_back(path);
                        break;
                    }
                    [[fallthrough]];
                case 2:
                    makeLink(makeTarget(), path);
                    break;
                case 3:
                    mkfifo(path.c_str(), 0644);
                    continue;
                case 4:
                    writeFile(path, "", 0644);
                    if (link(path.c_str(), (path + "2").c_str()) != 0) {
                        fail("link %s", path.c_str());
                    }
                    continue;
                default:
                    writeFile(path, "", makeMode());
                    break;
            }
            setOwner(path);
        }
    }

    std::string makeName(char first) {
        static constexpr const char* kOddEnds[] = {"..", ".dex", "\n", " "};
        std::string name(mInput.ConsumeIntegralInRange<size_t>(1, 240), first);
        const bool isOdd = mInput.ConsumeIntegralInRange(0, 3) == 0;
        return name + (isOdd ? mInput.PickValueInArray(kOddEnds) : "");
    }

    std::string makeTarget() {
        static constexpr size_t kLengths[] = {1, 98, 99, 100, 101, 150, 511, 512, 2045, 2046, 2047};
        return std::string(mInput.PickValueInArray(kLengths), 't');
    }

    mode_t makeMode() { return mInput.ConsumeIntegralInRange<mode_t>(0, 07777); }

    void setOwner(const std::string& path) {
        static constexpr uid_t kOwners[] = {0,     1000,  9999,     10000,
                                            10001, 20001, 0xFFFFFF, 0x1000000};
        const uid_t owner = mInput.PickValueInArray(kOwners);
        const gid_t group = mInput.PickValueInArray(kOwners);
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0 || lchown(path.c_str(), owner, group) != 0) {
            fail("chown %s", path.c_str());
        }
        if (!S_ISLNK(status.st_mode)) {
            chmod(path.c_str(), status.st_mode & 07777);  // a change of owner has cut it
        }
    }

    // Gives the files below their sizes and writes down what the packer will meet.
    void walk(const std::string& below) {
        for (const std::string& name : namesIn(mRoot + below)) {
            const std::string path = mRoot + below + "/" + name;
            Entry entry = {};
            entry.name = path.substr(mRoot.size() + 1);
            lstat(path.c_str(), &entry.status);
            if (!isPacked(path, entry.status)) {
                continue;
            }
            if (S_ISLNK(entry.status.st_mode)) {
                entry.target = readTarget(path);
            } else if (S_ISREG(entry.status.st_mode)) {
                entry.status.st_size = makeSize();
                writeContent(path, entry.status.st_size);
            }
            mLayout.add(entry);
            mEntries.push_back(entry);
            if (S_ISDIR(entry.status.st_mode)) {
                walk(below + "/" + name);
            }
        }
    }

    static std::string readTarget(const std::string& path) {
        char target[PATH_MAX + 1] = {};
        return {target, static_cast<size_t>(readlink(path.c_str(), target, sizeof(target)))};
    }

    // A little more or less than what is left of the slice, or than some chunks, or than nothing.
    long makeSize() {
        static constexpr long kNear[] = {0, 1, 511, 512, 513, -1, -511, -512, -513};
        long size = 0;
        switch (mInput.ConsumeIntegralInRange(0, 7)) {
            case 0:
                return 0;
            case 1:
                size = mLayout.left();
                break;
            case 2:
                size = mInput.ConsumeIntegralInRange<long>(0, 3) * kChunk;
                break;
            default:
                break;
        }
        size +=
            mInput.ConsumeIntegralInRange<long>(-6, 6) * kBlock + mInput.PickValueInArray(kNear);
        size = std::clamp(size, 0L, kMostContent - mContent);
        mContent += size;
        return size;
    }

    // Mostly holes; marks everywhere show what was moved.
    static void writeContent(const std::string& path, long size) {
        constexpr long kDistance = kChunk / 4;
        const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        bool isWritten = fd >= 0 && ftruncate(fd, size) == 0;
        for (long at = 0; at < size; at += kDistance) {
            const std::string mark = "mark" + std::to_string(at) + path.back();
            const auto length = std::min(mark.size(), static_cast<size_t>(size - at));
            isWritten = isWritten && pwrite(fd, mark.data(), length, at) >= 0;
        }
        if (!isWritten || (size > 0 && pwrite(fd, "e", 1, size - 1) != 1)) {
            fail("content of %s", path.c_str());
        }
        close(fd);
    }

    int packWhole() {
        AbortingCallBack callBack;
        if (!TarFile(&callBack).PackDir(mRoot.c_str(), "/set/a.tar")) {
            fail("PackDir");
        }
        return UnTarFile("/set/a.tar", &callBack).UnPack("/out", mUid);
    }

    int packSlices() {
        AbortingCallBack callBack;
        std::string words[TarFile::kSplitArguments] = {
            "backup", "split", "", "", std::to_string(mSlice / kMiB), "default", "10123"};
        if (!TarFile(&callBack, 0).PackSplitDir(mRoot, "/set/a.tar", words, kUid)) {
            fail("PackSplitDir");
        }
        return UnTarFile("/set/a.tar.txt", &callBack).UnSplitPack("/out/app", mUid);
    }

    bool hasGoodNames() const {
        return std::all_of(mEntries.begin(), mEntries.end(), [](const Entry& entry) {
            return storedName(entry).find("../") == std::string::npos &&
                   entry.target.size() <= kLongestTarget;
        });
    }

    std::string firstDifference() const {
        for (const Entry& entry : mEntries) {
            if (!isBack(entry)) {
                return entry.name;
            }
        }
        return countBelow("/out") == mEntries.size() ? "" : "there is more";
    }

    static size_t countBelow(const std::string& dir) {
        size_t count = 0;
        for (const std::string& name : namesIn(dir)) {
            struct stat status = {};
            const std::string path = dir + "/" + name;
            lstat(path.c_str(), &status);
            count += 1 + (S_ISDIR(status.st_mode) ? countBelow(path) : 0);
        }
        return count;
    }

    bool isBack(const Entry& entry) const {
        const std::string path = "/out/" + entry.name;
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0) {
            return false;
        }
        const unsigned int kept = 0xFFFFFF;  // what eight octal digits hold
        unsigned int group = 0;
        const unsigned int owner = fixup_owner_dir_file(entry.status.st_uid & kept,
                                                        entry.status.st_gid & kept, mUid, group);
        if (status.st_mode != expectedMode(entry) || status.st_uid != owner ||
            status.st_gid != group) {
            return false;
        }
        if (S_ISLNK(status.st_mode)) {
            return readTarget(path) == entry.target;
        }
        return !S_ISREG(status.st_mode) || (status.st_size == entry.status.st_size &&
                                            hasSameContent(mRoot + "/" + entry.name, path));
    }

    // The owner is set after the mode, which takes set-id bits away: that of the group only where
    // the group may execute.
    static mode_t expectedMode(const Entry& entry) {
        mode_t mode = entry.status.st_mode;
        if (S_ISREG(mode)) {
            mode &= ~static_cast<mode_t>(S_ISUID);
            if ((mode & S_IXGRP) != 0) {
                mode &= ~static_cast<mode_t>(S_ISGID);
            }
        }
        return mode;
    }

    static bool hasSameContent(const std::string& a, const std::string& b) {
        static char buffers[2][kContentChunk];
        const int fds[2] = {open(a.c_str(), O_RDONLY | O_CLOEXEC),
                            open(b.c_str(), O_RDONLY | O_CLOEXEC)};
        ssize_t lengths[2] = {};
        do {
            for (int i = 0; i < 2; ++i) {
                lengths[i] = read(fds[i], buffers[i], sizeof(buffers[i]));
            }
        } while (lengths[0] > 0 && lengths[0] == lengths[1] &&
                 memcmp(buffers[0], buffers[1], static_cast<size_t>(lengths[0])) == 0);
        close(fds[0]);
        close(fds[1]);
        return lengths[0] == 0 && lengths[1] == 0;
    }

    void checkListing() const {
        if (mSlice != 0 || !hasGoodNames()) {
            return;
        }
        std::vector<std::string> files;
        for (const Entry& entry : mEntries) {
            if (S_ISREG(entry.status.st_mode)) {
                files.push_back(entry.name);
            }
        }
        if (UnTarFile("/set/a.tar", nullptr).GetFileNames() != files) {
            fail("the archive lists other files");
        }
    }

    FuzzedDataProvider mInput;
    const long mSlice;  // in bytes; 0: one whole archive
    const uid_t mUid;
    const std::string mRoot;
    Layout mLayout;
    std::vector<Entry> mEntries;  // that are packed, in the packer's order
    long mContent = 0;            // bytes in all files so far
};

}  // namespace

void prepare() {
    for (const char* dir : {"/src", "/set", "/out"}) {
        makeDir(dir);
    }
}

void runInput(const std::string& input) {
    RoundTrip(input).run();
    for (const char* dir : {"/src", "/set", "/out"}) {
        emptyDir(dir);
    }
}

}  // namespace peltex_fuzz
