// The extractor, over one archive or a set of slices with its check file. Input: an options byte;
// the question at which to abort (0: none); the archive. Of a set: the check file's text up to a
// NUL, then slices: a byte with the number of their blocks, the blocks. "$0" to "$9" in the text
// stand for the size of a slice, which few inputs would hit.
//
// What lies around the destination has to stay as it was, but for what gets out by design:
// anything, once an entry has made a link; owner and mode of the directory above, by an entry named
// ".."; the removal of a slice elsewhere, by "../" in a check file.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <vector>

#include "tar/tar_header.h"
#include "tar/untar_file.h"
#include "tests/fuzz/target.h"
#include "tests/support/jail.h"
#include "tests/support/tar_builder.h"
#include "tests/support/test_files.h"

// libFuzzer's own mutations of `data`; returns the new size. NOLINTNEXTLINE
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace peltex_fuzz {

using namespace android::installd;
using namespace peltex_test;

namespace {

constexpr char kInput[] = "/data/in";
constexpr char kOutput[] = "/data/out";
constexpr char kDestination[] = "/data/out/app";  // of a set, which is unpacked beside it
constexpr size_t kOptionBytes = 2;
constexpr size_t kMostSlices = 10;

enum Option {
    kList = 1,
    kMapOwners = 2,  // to an application's uid, instead of leaving them as recorded
    kNoCallBack = 4,
    kSet = 8,
};

struct Part {
    size_t at;
    size_t size;
};

// Aborts at one of the questions.
class CallBack : public TarCallBack {
  public:
    explicit CallBack(int asksUntilAbort) : mAsks(asksUntilAbort) {}
    bool IsAborted() override {
        mIsAborted = mIsAborted || (mAsks > 0 && --mAsks == 0);
        return mIsAborted;
    }
    void OnTaskProgress(unsigned long /*bytes*/) override {}
    void OnPackagedOneSplitTar(const char* /*sliceInfo*/) override {}
    void WaitTaskLocked() override {}

  private:
    int mAsks;
    bool mIsAborted = false;
};

Snapshot gRoot;

void makePlaces() {
    makeDir(kInput);
    makeDir(kOutput);
}

void makeRoot() {
    emptyDir("/");
    makeDir("/");  // its mode
    static_cast<void>(chown("/", 0, 0) == 0);
    makePlaces();
    writeFile("/data/keep", "");  // nothing in it, which a restore takes for a slice
    writeFile("/keep", "keep");
    gRoot = snapshotOf("/");
}

bool isSet(const std::string& input) {
    return (input[0] & kSet) != 0;
}

// The archive, or the slices behind the check file's text, as far as they have whole blocks.
std::vector<Part> archivesOf(const std::string& input) {
    if (!isSet(input)) {
        return {{kOptionBytes, (input.size() - kOptionBytes) / kBlockSize * kBlockSize}};
    }
    std::vector<Part> slices;
    for (size_t at = std::min(input.find('\0', kOptionBytes), input.size()) + 1;
         at < input.size() && slices.size() < kMostSlices;) {
        const size_t blocks = static_cast<unsigned char>(input[at++]);
        slices.push_back({at, std::min(blocks, (input.size() - at) / kBlockSize) * kBlockSize});
        at += slices.back().size;
    }
    return slices;
}

std::string withSizes(std::string text, const std::vector<Part>& slices) {
    for (size_t i = 0; i < slices.size(); ++i) {
        const std::string name = "$" + std::to_string(i);
        for (size_t at = 0; (at = text.find(name, at)) != std::string::npos;) {
            text.replace(at, name.size(), std::to_string(slices[i].size));
        }
    }
    return text;
}

void use(const std::string& input, const std::string& path) {
    CallBack callBack(static_cast<unsigned char>(input[1]));
    UnTarFile archive(path.c_str(), (input[0] & kNoCallBack) != 0 ? nullptr : &callBack);
    const uint32_t uid = (input[0] & kMapOwners) != 0 ? 10123 : 0;
    int result = 0;
    if (isSet(input)) {
        result = archive.UnSplitPack(kDestination, uid);
    } else if ((input[0] & kList) == 0) {
        result = archive.UnPack(kOutput, uid);
    } else if (archive.GetFileNames() != archive.GetFileNames()) {
        fail("the second listing differs");
    }
    if (result > 0 || result < -5) {
        fail("unknown result %d", result);
    }
}

}  // namespace

void prepare() {
    makeRoot();
}

void runInput(const std::string& input) {
    if (input.size() < kOptionBytes) {
        return;
    }
    const std::vector<Part> parts = archivesOf(input);
    std::string text;
    std::string path;
    for (size_t i = 0; i < parts.size(); ++i) {
        path = kInput + ("/s." + std::to_string(i));
        writeFile(path, input.substr(parts[i].at, parts[i].size));
    }
    if (isSet(input)) {
        path = std::string(kInput) + "/s.txt";
        text = withSizes(input.substr(kOptionBytes).c_str(), parts);
        writeFile(path, text);
    }
    const int links = linksMade();
    use(input, path);
    if (links != linksMade() || text.find("../") != std::string::npos) {
        makeRoot();
        return;
    }
    std::filesystem::remove_all(kInput);
    std::filesystem::remove_all(kOutput);
    makePlaces();
    // A listing gives its entries their owners and modes, too, wherever their names lead.
    const bool isList = !isSet(input) && (input[0] & kList) != 0;
    const bool maySetOwnerAndMode = isList || input.find("..") != std::string::npos;
    const std::vector<std::string> changes = changesBetween(gRoot, snapshotOf("/"));
    for (const std::string& change : changes) {
        const bool isOfOwnerAndMode = change.find(' ', change.rfind(": ") + 2) != std::string::npos;
        if (!isOfOwnerAndMode || !maySetOwnerAndMode) {
            fail("%s", change.c_str());
        }
    }
    if (!changes.empty()) {
        makeRoot();
    }
}

// --- Mutations: of headers with magic and checksum, without which few would be read

namespace {

constexpr Part kSize = {offsetof(tar_header, size), sizeof(tar_header::size)};
constexpr Part kFields[] = {
    {offsetof(tar_header, name), sizeof(tar_header::name)},
    {offsetof(tar_header, mode), sizeof(tar_header::mode)},
    {offsetof(tar_header, uid), sizeof(tar_header::uid) + sizeof(tar_header::gid)},
    kSize,
    {offsetof(tar_header, typeflag), sizeof(tar_header::typeflag)},
    {offsetof(tar_header, linkname), sizeof(tar_header::linkname)},
    {sizeof(tar_header), kBlockSize},  // the beginning of what follows: long names are there
};

// Where the headers are, as far as they follow one another.
std::vector<size_t> headersOf(const uint8_t* data, size_t size) {
    std::vector<size_t> headers;
    const std::string input(reinterpret_cast<const char*>(data), size);
    for (const Part& part : size < kOptionBytes ? std::vector<Part>() : archivesOf(input)) {
        for (size_t at = part.at; at + kBlockSize <= part.at + part.size; at += kBlockSize) {
            if (data[at] != 0) {
                headers.push_back(at);
                const std::string digits = input.substr(at + kSize.at, kSize.size);
                const size_t bytes = strtoull(digits.c_str(), nullptr, 8);
                at += (std::min(bytes, part.size) + kBlockSize - 1) / kBlockSize * kBlockSize;
            }
        }
    }
    return headers;
}

void mutateField(uint8_t* data, size_t size, size_t header, const Part& field) {
    const size_t at = std::min(header + field.at, size);
    const size_t room = std::min(field.size, size - at);
    if (room > 0) {
        const size_t used = strnlen(reinterpret_cast<char*>(data + at), room);
        const size_t newSize = LLVMFuzzerMutate(data + at, used, room);
        memset(data + at + newSize, 0, room - newSize);
    }
}

void seal(uint8_t* block) {
    std::string header(reinterpret_cast<const char*>(block), kBlockSize);
    header.replace(offsetof(tar_header, magic), 5, "ustar");
    header.replace(offsetof(tar_header, chksum), 8, octal(sumOf(header), 7) + ' ');
    memcpy(block, header.data(), kBlockSize);
}

}  // namespace
}  // namespace peltex_fuzz

// Every other time one field of one header, else as libFuzzer does; of some inputs the wrong
// checksums are kept. The name is libFuzzer's. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
    using namespace peltex_fuzz;
    const std::vector<size_t> before = headersOf(data, size);
    if (seed % 2 == 0 && !before.empty()) {
        const unsigned choice = seed / 16;
        mutateField(data, size, before[choice % before.size()],
                    kFields[choice / before.size() % std::size(kFields)]);
    } else {
        size = LLVMFuzzerMutate(data, size, maxSize);
    }
    if (seed / 2 % 8 != 0) {
        for (const size_t header : headersOf(data, size)) {
            seal(data + header);
        }
    }
    return size;
}
