// Writes seeds of archives to DIR/extract/: as the library packs them, and others byte by byte.
//
//   make_seeds DIR
#include <stdio.h>

#include <string>

#include "tar/tar_file.h"
#include "tests/support/jail.h"
#include "tests/support/recording_callback.h"
#include "tests/support/tar_builder.h"
#include "tests/support/test_files.h"

namespace {

using namespace android::installd;
using namespace peltex_test;

std::string gDir;

void seed(const std::string& name, const std::string& input) {
    writeFile(gDir + "/" + name, input);
}

// "BLOCKS bytes", as the slices target takes each slice.
std::string counted(const std::string& slice) {
    return static_cast<char>(slice.size() / kBlock) + slice;
}

void makeTree(const std::string& root) {
    makeDir(root);
    makeDir(root + "/d", 0700);
    writeFile(root + "/d/file", "content");
    writeFile(root + "/empty", "");
    writeFile(root + "/" + std::string(120, 'n'), std::string(600, 'c'), 04755);
    makeLink("d/file", root + "/link");
    makeLink(std::string(150, 't'), root + "/longlink");
}

void seedArchives(const std::string& root) {
    RecordingCallBack callBack;
    std::string words[TarFile::kSplitArguments] = {"", "", "", "", "1", "default", "0"};
    if (!TarFile(&callBack).PackDir(root.c_str(), (root + ".tar").c_str()) ||
        !TarFile(&callBack, 0).PackSplitDir(root, root + ".set", words, 0)) {
        fail("the seeds' archives");
    }
    const std::string whole = readFile(root + ".tar");
    seed("packed", std::string(2, '\0') + whole);
    seed("listed", std::string("\1\0", 2) + whole);
    seed("aborted", std::string("\2\2", 2) + whole);
    seed("set", std::string("\10\0", 2) + "s.0|$0\n" + '\0' + counted(readFile(root + ".set.0")));
}

void seedCrafted() {
    const std::string through =
        Header('2', "l").link("/data").bytes() + entry('0', "l/keep", "other");
    const std::string names = longRecord('K', std::string(200, 't')) +
                              longRecord('L', std::string(200, 'n')) + Header('2', "n").bytes() +
                              entry('5', "..") + entry('0', "d/one/two", "content");
    const std::string plain(2, '\0');
    for (const size_t length : {kTarPathSize - 2, kTarPathSize - 1}) {
        seed("name" + std::to_string(length),
             plain + longRecord('L', std::string(length, 'n')) + entry('0', "short") + kEndBlocks);
    }
    seed("climbing", plain + entry('5', "d/") + entry('0', "d/../../keep", "2") + kEndBlocks);
    seed("link", plain + through + kEndBlocks);
    seed("names", plain + names + kEndBlocks);
    const std::string first = entry('8', "file", std::string(kBlock, '1')) + kEndBlocks;
    const std::string middle = entry('9', "file", std::string(kBlock, '2')) + kEndBlocks;
    const std::string last = entry('A', "file", "3") + entry('5', "d/") + kEndBlocks;
    seed("cut", std::string("\12\0", 2) + "s.0|$0\ns.1|0x800\ns.2|$2\n" + '\0' + counted(first) +
                    counted(middle) + counted(last));
    seed("elsewhere", std::string("\10\0", 2) + "../keep|0\n" + '\0' + counted(first));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    gDir = argv[1] + std::string("/extract");
    const TempTree tree("/tmp");
    makeTree(tree / "app");
    seedArchives(tree / "app");
    seedCrafted();
    return 0;
}
