// The restore of a set of slices. Input: the uid is mapped or not, the question at which to abort,
// the check file's text up to a NUL, then slices: a byte with the number of their blocks, the
// blocks. "$0" to "$9" in the text stand for the size of a slice, which few inputs would hit.
//
// A check file with "../" names slices elsewhere, which are removed once unpacked; a link that an
// archive makes leads anywhere; and an entry named ".." sets owner and mode of the directory above.
#include <algorithm>
#include <vector>

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

constexpr char kSetDir[] = "/data/in";
constexpr char kDestination[] = "/data/out/app";  // what is unpacked goes into /data/out
constexpr size_t kOptionBytes = 2;
constexpr size_t kMostSlices = 10;

Sentinel* gSentinel;
Sentinel* gRepaired;  // what owners and modes may have been set of

void makeRoot() {
    emptyDir("/");
    makeDir("/data");
    makeDir("/data/in");
    makeDir("/data/out");
    writeFile("/data/keep", "");  // nothing in it, which a restore takes for a slice
    writeFile("/keep", "keep");
    delete gSentinel;
    delete gRepaired;
    gSentinel = new Sentinel({"/", "/data", "/data/keep", "/keep"});
    gRepaired = new Sentinel({"/data", "/data/out"});
}

size_t endOfText(const std::string& input) {
    return std::min(input.find('\0', std::min(kOptionBytes, input.size())), input.size());
}

std::vector<ArchivePart> slicesOf(const std::string& input) {
    std::vector<ArchivePart> slices;
    for (size_t at = endOfText(input) + 1; at < input.size() && slices.size() < kMostSlices;) {
        const size_t blocks = static_cast<unsigned char>(input[at]);
        slices.push_back({at + 1, std::min(blocks * kBlockSize, input.size() - at - 1)});
        at += 1 + slices.back().size;
    }
    return slices;
}

std::string withSizes(const std::string& text, const std::vector<ArchivePart>& slices) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto number =
            i + 1 < text.size() ? static_cast<size_t>(text[i + 1] - '0') : slices.size();
        if (text[i] == '$' && number < slices.size()) {
            result += std::to_string(slices[number].size);
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

void prepare() {
    makeRoot();
}

void runInput(const std::string& input) {
    if (input.size() < kOptionBytes) {
        return;
    }
    const std::vector<ArchivePart> slices = slicesOf(input);
    const std::string text =
        withSizes(input.substr(kOptionBytes, endOfText(input) - kOptionBytes), slices);
    const std::string base = std::string(kSetDir) + "/s";
    writeFile(base + ".txt", text);
    for (size_t i = 0; i < slices.size(); ++i) {
        writeFile(base + "." + std::to_string(i), input.substr(slices[i].at, slices[i].size));
    }

    AbortingCallBack callBack(static_cast<unsigned char>(input[1]));
    const int links = linksMade();
    {
        UnTarFile set((base + ".txt").c_str(), &callBack);
        const int result = set.UnSplitPack(kDestination, (input[0] & 1) != 0 ? 10123 : 0);
        if (result > 0 || result < -5) {
            fail("unknown result %d", result);
        }
    }
    if (links != linksMade() || contains(text, "../")) {
        makeRoot();
        return;
    }
    gSentinel->check(contains(input, "..") ? Sentinel::kOwnerAndMode : Sentinel::kNothing);
    gRepaired->repair();
    emptyDir(kSetDir);
    emptyDir("/data/out");
}

}  // namespace peltex_fuzz

// The name is libFuzzer's. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
    return peltex_fuzz::mutateArchives(data, size, maxSize, seed, peltex_fuzz::slicesOf);
}
