// Writes seeds of archives to DIR/extract/: as the library packs them, and others byte by byte.
//
//   make_seeds DIR
#include <stdio.h>

#include <string>

#include "tar/tar_file.h"
#include "tests/support/jail.h"
#include "tests/support/tar_builder.h"
#include "tests/support/test_files.h"

namespace {

using namespace android::installd;
using namespace peltex_test;

const std::string kPlain(2, '\0');          // the options of an archive
const std::string kSet = {'\10', '\0'};     // of a set
const std::string kMapped = {'\12', '\0'};  // of one whose owners are mapped

// "BLOCKS bytes", as the target takes each slice.
std::string counted(const std::string& slice) {
    return static_cast<char>(slice.size() / kBlock) + slice;
}

void packSeeds(const std::string& root, const std::string& dir) {
    makeDir(root + "/d", 0700);
    writeFile(root + "/d/file", "content");
    writeFile(root + "/" + std::string(120, 'n'), std::string(600, 'c'), 04755);
    makeLink(std::string(150, 't'), root + "/link");
    NoCallBack callBack;
    std::string words[TarFile::kSplitArguments] = {"", "", "", "", "1", "default", "0"};
    if (!TarFile(&callBack).PackDir(root.c_str(), (root + ".tar").c_str()) ||
        !TarFile(&callBack, 0).PackSplitDir(root, root + ".set", words, 0)) {
        fail("the seeds' archives");
    }
    writeFile(dir + "/packed", kPlain + readFile(root + ".tar"));
    writeFile(dir + "/set", kSet + "s.0|$0\n" + '\0' + counted(readFile(root + ".set.0")));
}

void craftSeeds(const std::string& dir) {
    const auto seed = [&dir](const std::string& name, const std::string& entries) {
        writeFile(dir + "/" + name, kPlain + entries + kEndBlocks);
    };
    for (const size_t length : {kTarPathSize - 2, kTarPathSize - 1}) {
        seed("name" + std::to_string(length),
             longRecord('L', std::string(length, 'n')) + entry('0', "short"));
    }
    seed("climbing", entry('5', "d/") + entry('0', "d/../../keep", "2"));
    seed("link", Header('2', "l").link("/data").bytes() + entry('0', "l/keep", "other"));
    seed("names", longRecord('K', std::string(200, 't')) + longRecord('L', std::string(200, 'n')) +
                      Header('2', "n").bytes() + entry('5', "..") + entry('0', "d/one/two", "c"));
    const std::string first = entry('8', "file", std::string(kBlock, '1')) + kEndBlocks;
    const std::string middle = entry('9', "file", std::string(kBlock, '2')) + kEndBlocks;
    const std::string last = entry('A', "file", "3") + entry('5', "d/") + kEndBlocks;
    writeFile(dir + "/cut", kMapped + "s.0|$0\ns.1|0x800\ns.2|$2\n" + '\0' + counted(first) +
                                counted(middle) + counted(last));
    writeFile(dir + "/elsewhere", kSet + "../keep|0\n" + '\0' + counted(first));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const TempTree tree("/tmp");
    packSeeds(tree / "app", argv[1] + std::string("/extract"));
    craftSeeds(argv[1] + std::string("/extract"));
    return 0;
}
