// The extractor over one archive. Input: an options byte, the question at which to abort (0: none),
// the archive.
//
// An archive may lead outside its destination by a link that it makes, so what is around the
// destination has to stay as it was unless a link was made; and by an entry named "..", which sets
// owner and mode of the directory above.
#include <algorithm>

#include "tar/tar_header.h"
#include "tar/untar_file.h"
#include "tests/fuzz/support/archive_input.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/fuzz/support/sentinel.h"
#include "tests/fuzz/support/target.h"

namespace peltex_fuzz {

using namespace android::installd;

namespace {

constexpr char kArchive[] = "/in.tar";
constexpr char kDestination[] = "/data/app";
constexpr size_t kOptionBytes = 2;

enum Option {
    kList = 1,
    kMapOwners = 2,  // to an application's uid, instead of leaving them as recorded
    kAnySize = 4,    // instead of filling the last block up
    kNoCallBack = 8,
};

Sentinel* gSentinel;
Sentinel* gRepaired;  // what owners and modes may have been set of

void makeRoot() {
    emptyDir("/");
    makeDir("/data");
    makeDir("/data/app");
    writeFile("/data/keep", "keep");
    writeFile("/keep", "keep");
    writeFile(kArchive, "");
    delete gSentinel;
    delete gRepaired;
    gSentinel = new Sentinel({"/", "/data", "/data/keep", "/keep"});
    gRepaired = new Sentinel({"/", "/data", "/data/keep", "/keep", kDestination, kArchive});
}

void listTwice(UnTarFile& archive) {
    if (archive.GetFileNames() != archive.GetFileNames()) {
        fail("the second listing differs");
    }
    gSentinel->check(Sentinel::kOwnerAndMode);
}

void unpack(UnTarFile& archive, uint32_t uid, bool namesParent) {
    const int links = linksMade();
    const int result = archive.UnPack(kDestination, uid);
    if (result > 0 || result < -5) {
        fail("unknown result %d", result);
    }
    if (links == linksMade()) {
        gSentinel->check(namesParent ? Sentinel::kOwnerAndMode : Sentinel::kNothing);
    }
}

std::vector<ArchivePart> archiveOf(const std::string& input) {
    const size_t at = std::min(kOptionBytes, input.size());
    return {{at, input.size() - at}};
}

}  // namespace

void prepare() {
    makeRoot();
}

void runInput(const std::string& input) {
    if (input.size() < kOptionBytes) {
        return;
    }
    const auto options = static_cast<unsigned char>(input[0]);
    std::string bytes = input.substr(kOptionBytes);
    if ((options & kAnySize) == 0) {
        bytes.resize((bytes.size() + kBlockSize - 1) / kBlockSize * kBlockSize);
    }
    writeFile(kArchive, bytes);
    AbortingCallBack callBack(static_cast<unsigned char>(input[1]));
    const int links = linksMade();
    {
        UnTarFile archive(kArchive, (options & kNoCallBack) != 0 ? nullptr : &callBack);
        if ((options & kList) != 0) {
            listTwice(archive);
        } else {
            unpack(archive, (options & kMapOwners) != 0 ? 10123 : 0,
                   bytes.find("..") != std::string::npos);
        }
    }
    if (links != linksMade()) {
        makeRoot();
        return;
    }
    gRepaired->repair();
    emptyDir(kDestination);
}

}  // namespace peltex_fuzz

// The name is libFuzzer's. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
    return peltex_fuzz::mutateArchives(data, size, maxSize, seed, peltex_fuzz::archiveOf);
}
