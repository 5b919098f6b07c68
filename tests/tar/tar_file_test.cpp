#include "tar/tar_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "tests/support/tar_test.h"

namespace peltex_test {
namespace {

using android::installd::TarFile;

constexpr unsigned long kChunk = 0x80000;

class TarFileTest : public TarTest {
  protected:
    bool pack(const std::string& source) {
        return TarFile(&callBack).PackDir(source.c_str(), archive.c_str());
    }
    bool pack() { return pack(tree / "src"); }

    Lines packed() const {
        Lines headers = headersOf(readFile(archive));
        std::sort(headers.begin(), headers.end());
        return headers;
    }

    const std::string archive = tree / "a.tar";
};

TEST_F(TarFileTest, DirectoriesPrecedeWhatTheyHold) {
    writeFile(tree / "src/a/b/file", "1234");
    EXPECT_TRUE(pack());
    EXPECT_EQ(headersOf(readFile(archive)), (Lines{"5 a/ 0", "5 a/b/ 0", "0 a/b/file 4"}));
    makeDir(tree / "empty");
    EXPECT_TRUE(pack(tree / "empty"));
    EXPECT_EQ(readFile(archive), kEndBlocks);
    EXPECT_EQ(errors(), Lines{});
}

TEST_F(TarFileTest, OneTrailingSlashIsCut) {
    writeFile(tree / "src/file", "1");
    for (const std::string& source : {tree / "src/", tree / "src//"}) {
        log.clear();
        EXPECT_TRUE(pack(source));
        EXPECT_EQ(packed(), Lines{"0 file 1"});
        EXPECT_EQ(errors(), Lines{"TarFile::PackDir, clear end slash of path: " +
                                  source.substr(0, source.size() - 1)});
    }
}

TEST_F(TarFileTest, WhatIsLeftOut) {
    const struct {
        std::string name;
        std::function<void(const std::string&)> make;
        std::string notice;  // empty where it is kept
        Lines packed;
    } rows[] = {
        {"x.dex", [](auto& path) { writeFile(path, ""); }, "ignore dex file", {}},
        {".dex", [](auto& path) { writeFile(path, ""); }, "ignore dex file", {}},
        {"x.dex", [](auto& path) { makeDir(path); }, "", {"5 x.dex/ 0"}},
        {"x.dex", [](auto& path) { makeLink("y", path); }, "", {"2 x.dex 0"}},
        {"x.dexx", [](auto& path) { writeFile(path, ""); }, "", {"0 x.dexx 0"}},
        {"two", [](auto& path) { writeFile(path, ""), link(path.c_str(), (path + "2").c_str()); },
         "ignore hard link file", {}},
        {"two", [](auto& path) { makeLink("y", path), link(path.c_str(), (path + "2").c_str()); },
         "ignore hard link file", {}},
        {"com.tencent.mm/tinker", [](auto& path) { writeFile(path + "/patch", ""); },
         "ignore tinker dir [PATH]", {"5 com.tencent.mm/ 0"}},
        {"com.tencent.mm/tinker", [](auto& path) { writeFile(path, ""); }, "",
         {"0 com.tencent.mm/tinker 0", "5 com.tencent.mm/ 0"}},
        {"com.tencent.mm/tinkerX", [](auto& path) { makeDir(path); }, "",
         {"5 com.tencent.mm/ 0", "5 com.tencent.mm/tinkerX/ 0"}},
        {"fifo", makeFifo, "skip not supported file: PATH, mode: 10000", {}},
        {"socket", makeSocket, "skip not supported file: PATH, mode: 140000", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TempTree one;
        const std::string path = one / row.name;
        row.make(path);
        log.clear();
        EXPECT_TRUE(pack(one.path()));
        EXPECT_EQ(packed(), row.packed);
        std::string notice = row.notice;
        if (const size_t at = notice.find("PATH"); at != notice.npos) {
            notice.replace(at, 4, path);
        }
        EXPECT_EQ(notices().empty() ? "" : notices()[0],
                  notice.empty() ? "" : "TarFile::PackDir, " + notice);
    }
}

TEST_F(TarFileTest, AnArchiveInsideItsTreeLeavesItselfOut) {
    writeFile(tree / "src/file", "1");
    EXPECT_TRUE(TarFile(nullptr).PackDir((tree / "src").c_str(), (tree / "src/a.tar").c_str()));
    EXPECT_EQ(headersOf(readFile(tree / "src/a.tar")), Lines{"0 file 1"});
    EXPECT_EQ(notices(), (Lines{"TarFile::PackDir, ignore current tar file",
                                "TarFile::PackDir, filter file: " + (tree / "src/a.tar")}));
}

TEST_F(TarFileTest, SourcesAndTargetsThatAreRefused) {
    writeFile(tree / "file", "");
    const std::string longest = "/" + std::string(2047, 'x');
    const std::string check = "TarFile::PackDir, failed check dir: ";
    const std::string no = tree / "no";
    const std::string source = tree.path();
    const struct {
        const char* source;
        std::string target;
        Lines errors;
    } rows[] = {
        {"", archive, {"TarFile::PackDir, invalid input dir name", check}},
        {longest.c_str(), archive,
         {"TarFile::PackDir, input dir name too long: " + longest, check + longest}},
        {"/", archive,
         {"TarFile::PackDir, clear end slash of path: ",
          "TarFile::PackDir, failed to get stat of src dir: , error: No such file or directory",
          check + "/"}},
        {no.c_str(), archive,
         {"TarFile::PackDir, failed to get stat of src dir: " + no +
              ", error: No such file or directory",
          check + no}},
        {"/dev/null", archive,
         {"TarFile::PackDir, src dir is not directory: /dev/null", check + "/dev/null"}},
        {source.c_str(), tree / "no/a.tar",
         {"TarFile::PackDir, failed to open tar file: " + (tree / "no/a.tar") +
          ", error: No such file or directory"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.errors[0]);
        log.clear();
        EXPECT_FALSE(TarFile(nullptr).PackDir(row.source, row.target.c_str()));
        EXPECT_EQ(errors(), row.errors);
        EXPECT_EQ(listTree(tree.path()), Lines{"file"});
    }
    EXPECT_FALSE(TarFile(nullptr).PackDir(source.c_str(), nullptr));
    EXPECT_FALSE(TarFile(nullptr).PackDir(nullptr, archive.c_str()));
}

// A path and its NUL have 2048 bytes.
TEST_F(TarFileTest, APathMayHave2047Bytes) {
    std::string path = tree / "src";
    while (path.size() < 2000) {
        path += "/" + std::string(std::min<size_t>(2000 - path.size(), 200), 'd');
    }
    const std::string file = path + "/" + std::string(2047 - path.size() - 1, 'f');
    writeFile(file, "1");
    EXPECT_TRUE(pack());
    EXPECT_EQ(errors(), Lines{});

    writeFile(file + "f", "1");
    unlink(file.c_str());
    EXPECT_FALSE(pack());
    EXPECT_EQ(errors()[0], "TarFile::PackDir, file name too long, path: " + path + ", file: " +
                               (file + "f").substr(path.size() + 1));
    EXPECT_FALSE(exists(archive));
}

TEST_F(TarFileTest, ProgressIsContentChunkByChunk) {
    writeFile(tree / "src/" + std::string(120, 'n'), std::string(2 * kChunk + 1, 'c'));
    writeFile(tree / "src/empty", "");
    EXPECT_TRUE(pack());
    EXPECT_EQ(callBack.progress, (std::vector<unsigned long>{kChunk, kChunk, 1}));
}

TEST_F(TarFileTest, AnAbortBetweenEntriesLeavesAWholeShorterArchive) {
    writeFile(tree / "src/one/file", "");
    writeFile(tree / "src/two/file", "");
    callBack.asksUntilAbort = 1;  // the walk asks first inside the first of the two directories
    EXPECT_TRUE(pack());
    EXPECT_EQ(packed().size(), 2u);
    const std::string bytes = readFile(archive);
    EXPECT_EQ(bytes.substr(bytes.size() - kEndBlocks.size()), kEndBlocks);
    EXPECT_EQ(notices().back(), "TarFile::PackDir, pack task aborted");
}

TEST_F(TarFileTest, AnAbortInsideAFileTakesTheArchiveAway) {
    writeFile(tree / "src/file", std::string(2 * kChunk, 'c'));
    callBack.onProgress = [this] { callBack.isAborted = true; };
    EXPECT_FALSE(pack());
    EXPECT_FALSE(exists(archive));
    EXPECT_EQ(callBack.progress, std::vector<unsigned long>{kChunk});
    EXPECT_EQ(notices(), Lines{"TarFile::PackDir, pack task aborded in file"});
    EXPECT_EQ(errors(), (Lines{"TarFile::PackDir, failed to write content of file: " +
                                   (tree / "src/file") + ", size: 1048576",
                               "TarFile::PackDir, failed when pack: " + (tree / "src/file") +
                                   ", result: -1"}));
}

TEST_F(TarFileTest, AFileThatGrowsIsCutAndOneThatShrinksFails) {
    const std::string file = tree / "src/file";
    writeFile(file, std::string(kChunk + 10, 'c'));
    callBack.onProgress = [&] { EXPECT_EQ(truncate(file.c_str(), 4 * kChunk), 0); };
    EXPECT_TRUE(pack());
    EXPECT_EQ(packed(), Lines{"0 file 524298"});

    writeFile(file, std::string(kChunk + 10, 'c'));
    callBack.onProgress = [&] { EXPECT_EQ(truncate(file.c_str(), kChunk + 9), 0); };
    EXPECT_FALSE(pack());
    EXPECT_EQ(errors()[0], "TarFile::PackDir, failed to read data, size: 10, real: 9");
    EXPECT_EQ(errors()[1], "TarFile::PackDir, failed to read src file: " + file);
    EXPECT_FALSE(exists(archive));
}

TEST_F(TarFileTest, AFileThatVanishesFailsThePack) {
    writeFile(tree / "src/one", "1");
    writeFile(tree / "src/two", "1");
    callBack.onProgress = [this] {
        for (const char* name : {"src/one", "src/two"}) {
            unlink((tree / name).c_str());
        }
    };
    EXPECT_FALSE(pack());
    EXPECT_EQ(errors()[0].substr(0, 45), "TarFile::PackDir, failed to get stat of file:");
    EXPECT_FALSE(exists(archive));
}

TEST_F(TarFileTest, AFullDiskTakesTheArchiveAway) {
    writeFile(tree / "src/d/file", std::string(kChunk, 'c'));
    makeLink("/dev/full", archive);
    EXPECT_FALSE(pack());
    EXPECT_FALSE(exists(archive));
    ASSERT_FALSE(errors().empty());
    EXPECT_EQ(errors()[0].substr(0, 51), "TarFile::PackDir, failed to write data, size: 52428");
    EXPECT_EQ(errors().back(),
              "TarFile::PackDir, failed when pack: " + (tree / "src/d/file") + ", result: -1");
}

TEST_F(TarFileTest, AFileBeyondTwelveOctalDigitsIsRefused) {
    const std::string file = tree / "src/file";
    writeFile(file, "");
    ASSERT_EQ(truncate(file.c_str(), 0x1000000000), 0);
    EXPECT_FALSE(pack());
    EXPECT_EQ(errors()[0],
              "TarFile::PackDir, can't store file '" + file + "' of size: 68719476736");
    EXPECT_FALSE(exists(archive));
}

// The padding is counted in 32 bits with a sign, where this size is a negative one.
TEST_F(TarFileTest, AFileOf2GiBAndAByteHasNoPadding) {
    constexpr ssize_t kSize = (ssize_t{1} << 31) + 1;
    writeFile(tree / "src/file", "");
    ASSERT_EQ(truncate((tree / "src/file").c_str(), kSize), 0);
    makeFifo(archive);
    ssize_t total = 0;
    std::thread reader([&] {
        const int in = open(archive.c_str(), O_RDONLY);
        const int out = open("/dev/null", O_WRONLY);
        for (ssize_t count = 1; count > 0; total += count) {
            count = splice(in, nullptr, out, nullptr, 1 << 20, 0);
        }
        close(in);
        close(out);
    });
    EXPECT_TRUE(pack());
    reader.join();
    EXPECT_EQ(total, static_cast<ssize_t>(kBlock) + kSize + 1024);
}

}  // namespace
}  // namespace peltex_test
