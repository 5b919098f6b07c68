// Writes seeds for the targets that take binary inputs to DIR/TARGET/: archives as the library
// packs them, others byte by byte, and noise where any bytes describe a tree.
//
//   make_seeds DIR
#include <stdio.h>
#include <unistd.h>

#include <random>
#include <string>

#include "tar/tar_file.h"
#include "tests/fuzz/support/archive_input.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/support/tar_builder.h"

namespace {

using namespace android::installd;
using namespace peltex_fuzz;
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
    AbortingCallBack callBack;
    std::string words[TarFile::kSplitArguments] = {"", "", "", "", "1", "default", "0"};
    if (!TarFile(&callBack).PackDir(root.c_str(), (root + ".tar").c_str()) ||
        !TarFile(&callBack, 0).PackSplitDir(root, root + ".set", words, 0)) {
        fail("the seeds' archives");
    }
    const std::string whole = readFile(root + ".tar");
    const std::string slice = readFile(root + ".set.0");
    seed("extract/packed", std::string(2, '\0') + whole);
    seed("extract/listed", std::string("\1\0", 2) + whole);
    seed("extract/aborted", std::string("\2\2", 2) + whole);
    seed("slices/packed", std::string(2, '\0') + "s.0|$0\n" + '\0' + counted(slice));
}

void seedCrafted() {
    const std::string through =
        Header('2', "l").link("/data").bytes() + entry('0', "l/keep", "other");
    const std::string names = longRecord('K', std::string(200, 't')) +
                              longRecord('L', std::string(200, 'n')) + Header('2', "n").bytes() +
                              entry('5', "..") + entry('0', "d/one/two", "content");
    for (const size_t length : {kTarPathSize - 2, kTarPathSize - 1}) {
        seed("extract/name" + std::to_string(length),
             std::string(2, '\0') + longRecord('L', std::string(length, 'n')) +
                 entry('0', "short") + kEndBlocks);
    }
    seed("extract/climbing",
         std::string(2, '\0') + entry('5', "d/") + entry('0', "d/../../keep", "2") + kEndBlocks);
    seed("extract/link", std::string(2, '\0') + through + kEndBlocks);
    seed("extract/names", std::string(2, '\0') + names + kEndBlocks);
    const std::string first = entry('8', "file", std::string(kBlock, '1')) + kEndBlocks;
    const std::string middle = entry('9', "file", std::string(kBlock, '2')) + kEndBlocks;
    const std::string last = entry('A', "file", "3") + entry('5', "d/") + kEndBlocks;
    seed("slices/cut", std::string("\1\0", 2) + "s.0|$0\ns.1|0x800\ns.2|$2\n" + '\0' +
                           counted(first) + counted(middle) + counted(last));
    seed("slices/elsewhere", std::string(2, '\0') + "../keep|0\n" + '\0' + counted(first));
}

void seedNoise() {
    std::mt19937 noise(1);
    for (size_t length = 8; length <= 400; length += 8) {
        std::string input(length, '\0');
        for (char& byte : input) {
            byte = static_cast<char>(noise());
        }
        seed("round_trip/" + std::to_string(length), input);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    gDir = argv[1];
    for (const char* target : {"extract", "slices", "round_trip"}) {
        makeDir(gDir + "/" + target);
    }
    char root[] = "/tmp/seeds.XXXXXX";
    if (mkdtemp(root) == nullptr) {
        perror(root);
        return 1;
    }
    makeTree(std::string(root) + "/app");
    seedArchives(std::string(root) + "/app");
    seedCrafted();
    seedNoise();
    return 0;
}
