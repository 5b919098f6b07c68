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
    using Path = const std::string&;
    const auto empty = [](Path path) { writeFile(path, ""); };
    const auto dir = [](Path path) { makeDir(path + "/inside"); };
    const auto symlink = [](Path path) { makeLink("y", path); };
    const auto another = [](Path path) { link(path.c_str(), (path + "2").c_str()); };
    const auto twice = [=](Path path) { empty(path), another(path); };
    const auto linkTwice = [=](Path path) { symlink(path), another(path); };
    const struct {
        std::string name;
        std::function<void(Path)> make;
        std::string notice;  // empty where it is kept
        Lines packed;
    } rows[] = {
        {"x.dex", empty, "ignore dex file", {}},
        {".dex", empty, "ignore dex file", {}},
        {"x.dex", dir, "", {"5 x.dex/ 0", "5 x.dex/inside/ 0"}},
        {"x.dex", symlink, "", {"2 x.dex 0"}},
        {"x.dexx", empty, "", {"0 x.dexx 0"}},
        {"two", twice, "ignore hard link file", {}},
        {"two", linkTwice, "ignore hard link file", {}},
        {"com.tencent.mm/tinker", dir, "ignore tinker dir [PATH]", {"5 com.tencent.mm/ 0"}},
        {"com.tencent.mm/tinker",
         symlink,
         "",
         {"2 com.tencent.mm/tinker 0", "5 com.tencent.mm/ 0"}},
        {"com.tencent.mm/tinkerX",
         empty,
         "",
         {"0 com.tencent.mm/tinkerX 0", "5 com.tencent.mm/ 0"}},
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
    const std::string no = tree / "no";
    const std::string source = tree.path();
    const std::string pack = "TarFile::PackDir, ";
    const std::string noStat = pack + "failed to get stat of src dir: ";
    const std::string noOpen = pack + "failed to open tar file: ";
    const std::string notThere = ", error: No such file or directory";
    const struct {
        std::string source;
        std::string target;
        std::string error;
    } rows[] = {
        {"", archive, pack + "invalid input dir name"},
        {longest, archive, pack + "input dir name too long: " + longest},
        {"/", archive, noStat + notThere},
        {no, archive, noStat + no + notThere},
        {"/dev/null", archive, pack + "src dir is not directory: /dev/null"},
        {source, no + "/a.tar", noOpen + no + "/a.tar" + notThere},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        log.clear();
        EXPECT_FALSE(TarFile(nullptr).PackDir(row.source.c_str(), row.target.c_str()));
        Lines lines = errors();
        if (row.target == archive) {
            EXPECT_EQ(lines.back(), pack + "failed check dir: " + row.source);
            lines.pop_back();
        }
        EXPECT_EQ(lines.back(), row.error);
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
    EXPECT_EQ(errors()[0], "TarFile::PackDir, file name too long, path: " + path +
                               ", file: " + (file + "f").substr(path.size() + 1));
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
    EXPECT_EQ(
        errors(),
        (Lines{"TarFile::PackDir, failed to write content of file: " + (tree / "src/file") +
                   ", size: 1048576",
               "TarFile::PackDir, failed when pack: " + (tree / "src/file") + ", result: -1"}));
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
