// Sizes here are those of slices of 1 MiB: two chunks of content.
#include <gtest/gtest.h>
#include <host/relabel_observer.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tar/check_file.h"
#include "tar/tar_file.h"
#include "tar/untar_file.h"
#include "tests/support/tar_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;

constexpr long kSlice = 1 << 20;
constexpr long kChunk = kSlice / 2;
constexpr unsigned kUid = 10123;

struct Part {
    char type;
    long size;
};

class TarSplitTest : public TarTest {
  protected:
    TarSplitTest() { emptyOut(); }

    void emptyOut() {
        std::filesystem::remove_all(tree / "out");
        makeDir(tree / "out");
    }

    bool pack(const std::string& mib = "1", const std::string& source = "") {
        std::string args[TarFile::kSplitArguments] = {"backup", "split",  "from", "to",
                                                      mib,      "seinfo", "10123"};
        return TarFile(&callBack, 1)
            .PackSplitDir(source.empty() ? tree / "src" : source, base, args, kUid);
    }
    std::string slice(size_t number) const { return base + "." + std::to_string(number); }
    Lines left() const { return listTree(tree / "out"); }

    // Makes files of these sizes, of which the walk meets the first first.
    static Lines makeFiles(const std::string& dir, const std::vector<long>& sizes, size_t length) {
        for (size_t i = 0; i < sizes.size(); ++i) {
            writeFile(dir + "/" + std::string(length - 1, 'n') + std::to_string(i), "");
        }
        Lines paths;
        for (const auto& found : std::filesystem::directory_iterator(dir)) {
            const auto size = static_cast<size_t>(sizes[paths.size()]);
            paths.push_back(found.path());
            writeFile(paths.back(), std::string(size, static_cast<char>('a' + paths.size())));
        }
        return paths;
    }

    // "SLICE: TYPE SIZE" of each header.
    Lines packed() const {
        Lines texts;
        for (size_t number = 0; exists(slice(number)); ++number) {
            for (const std::string& header : headersOf(readFile(slice(number)))) {
                texts.push_back(std::to_string(number) + ": " + header[0] +
                                header.substr(header.rfind(' ')));
            }
        }
        return texts;
    }

    // The same for what these parts make, with the slices' sizes: later parts begin a slice.
    static Lines expectedSlices(const std::vector<Part>& parts, std::vector<long>& sizes) {
        Lines texts;
        for (const Part& part : parts) {
            if (sizes.empty() || part.type == '9' || part.type == 'A') {
                sizes.push_back(1024);
            }
            sizes.back() += 512 + (part.size + 511) / 512 * 512;
            texts.push_back(std::to_string(sizes.size() - 1) + ": " + part.type + " " +
                            std::to_string(part.size));
        }
        return texts;
    }

    int restore(const std::string& checkText) {
        writeFile(base + ".txt", checkText);
        return UnTarFile((base + ".txt").c_str(), &callBack)
            .UnSplitPack((tree / "to/com.x").c_str(), kUid);
    }

    std::string base = tree / "out/app.tar";
    Lines relabelled;
    std::string refused;
    const android::host::ScopedRelabelObserver observer{
        [this](const char* path, const char* seInfo, uid_t uid, unsigned int flags) {
            relabelled.push_back(std::string(path) + " " + seInfo + " " + std::to_string(uid) +
                                 " " + std::to_string(flags));
            return !refused.empty() && path == base + refused ? EACCES : 0;
        }};
};

// The header of a directory fills a slice of no size: what it holds is packed after the pause.
TEST_F(TarSplitTest, ADirectoryThatBecomesALinkMeanwhileIsNotFollowed) {
    writeFile(tree / "outside/secret", "secret");
    makeDir(tree / "src/d");
    callBack.onWait = [this] {
        ASSERT_EQ(rename((tree / "src/d").c_str(), (tree / "moved").c_str()), 0);
        makeLink(tree / "outside", tree / "src/d");
    };
    EXPECT_FALSE(pack("0"));
    EXPECT_EQ(errors()[0], "TarFile::PackDir, failed to open dir: " + (tree / "src/d") +
                               ", err: Not a directory");
    EXPECT_EQ(packed(), Lines{"0: 5 0"});
}

TEST_F(TarSplitTest, ATreeSmallerThanASliceIsOneSlice) {
    writeFile(tree / "src/d/file", "1", 0600);
    base += "/";
    ASSERT_TRUE(pack("100", tree / "src/"));
    base.pop_back();
    EXPECT_EQ(left(), (Lines{"app.tar.0", "app.tar.txt"}));
    EXPECT_EQ(headersOf(readFile(slice(0))), (Lines{"5 d/ 0", "0 d/file 1"}));
    EXPECT_EQ(readFile(base + ".txt"), "app.tar.0|2560\n");
    EXPECT_EQ(callBack.slices, Lines{slice(0) + "|end"});
    EXPECT_EQ(relabelled, (Lines{slice(0) + " seinfo 10123 0", base + ".txt seinfo 10123 0"}));
    for (const std::string& path : {slice(0), base + ".txt"}) {
        EXPECT_EQ(ownerAndMode(path), "10123:10123 660");
    }
}

TEST_F(TarSplitTest, WhereFilesAreCutAndSlicesEnd) {
    constexpr long S = kSlice;
    constexpr long C = kChunk;
    const struct {
        const char* name;
        std::vector<long> files;
        std::vector<Part> parts;
        bool isLastDropped = false;
        long unpromised = 0;  // bytes of the last slice that no header counts
        size_t nameLength = 1;
    } rows[] = {
        {"fits with its end", {S - 1536}, {{'0', S - 1536}}},
        {"fits by rounding", {S - 1025}, {{'0', S - 1025}}},
        {"first part is all", {S - 1024}, {{'8', S - 1024}}},
        {"fills the slice", {S - 512}, {{'8', S - 512}}, true},
        {"padded in its slice", {S - 511}, {{'8', S - 511}}, true},
        {"one slice of content", {S}, {{'8', S}}, true},
        {"a byte more", {S + 1}, {{'8', S}, {'A', 1}}},
        {"two slices", {2 * S}, {{'8', S}, {'A', S}}, true},
        {"three slices", {3 * S - 511}, {{'8', S}, {'9', S}, {'A', S - 511}}, true},
        {"four slices", {3 * S + 5}, {{'8', S}, {'9', S}, {'9', S}, {'A', 5}}},
        {"room of two chunks less 1024", {512, S}, {{'0', 512}, {'8', S}}, true},
        {"room of a chunk", {C - 512, S}, {{'0', C - 512}, {'8', C}, {'A', C}}},
        {"room of a chunk and 512", {C - 1024, S}, {{'0', C - 1024}, {'8', C}, {'A', C}}},
        {"room of a chunk and 1024", {C - 1536, S}, {{'0', C - 1536}, {'8', S}}, true},
        {"room of 1024", {S - 1536, 1000}, {{'0', S - 1536}, {'0', 1000}}, true},
        {"room of 512", {S - 1024, S}, {{'8', S - 1024}, {'8', C}, {'A', C}}},
        {"room of 0", {S - 1024, 0, 10}, {{'8', S - 1024}, {'0', 0}, {'0', 10}}, true},
        {"less than no room",
         {S - 1024, 0, 0, 9},
         {{'8', S - 1024}, {'0', 0}, {'0', 0}, {'8', 0}},
         true,
         512},
        {"the last slice holds nothing but a name", {S, 0}, {{'8', S}}, true},
        {"path of 99 bytes", {S - 512}, {{'8', S - 512}}, true, 0, 71},
        {"path of 100 bytes", {S - 512}, {{'8', S}}, true, -512, 72},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TempTree one;
        makeFiles(one / "srcs", row.files, row.nameLength);
        callBack.slices.clear();
        emptyOut();
        ASSERT_TRUE(pack("1", one / "srcs"));
        std::vector<long> sizes;
        EXPECT_EQ(packed(), expectedSlices(row.parts, sizes));
        sizes.back() += row.unpromised;
        std::string check;
        Lines handedOver;
        for (const long size : sizes) {
            handedOver.push_back(slice(handedOver.size()));
            EXPECT_EQ(statOf(handedOver.back()).st_size, size);
            check += handedOver.back().substr((tree / "out/").size()) + "|" + std::to_string(size) +
                     "\n";
        }
        row.isLastDropped ? handedOver.push_back("end") : void(handedOver.back() += "|end");
        EXPECT_EQ(callBack.slices, handedOver);
        EXPECT_EQ(readFile(base + ".txt"), check);
    }
}

TEST_F(TarSplitTest, HeadersOfDirectoriesAndLinksEndASliceToo) {
    makeLink("target", tree / "src/a/link");
    ASSERT_TRUE(pack("0"));
    EXPECT_EQ(headersOf(readFile(slice(0))), Lines{"5 a/ 0"});
    EXPECT_EQ(headersOf(readFile(slice(1))), Lines{"2 a/link 0"});
    EXPECT_EQ(callBack.slices, (Lines{slice(0), slice(1), "end"}));
    EXPECT_EQ(errors(), Lines{});
}

TEST_F(TarSplitTest, SliceSizesAreMebibytesIn32Bits) {
    const struct {
        std::string mib;
        long slice;
        std::string remark;
    } rows[] = {
        {"1", kSlice, "1"},
        {"0x63", 99 * kSlice, "99"},
        {"0x64", 100 * kSlice, ""},
        {"128MiB", 128 * kSlice, ""},
        {"2048", -2048 * kSlice, ""},
        {"4095", -kSlice, ""},
        {"4096", 0, ""},
        {"-1", -kSlice, "-1"},
        {"0x80000001", kSlice, "-2147483647"},
        {"many", 0, "0"},
    };
    makeDir(tree / "src/d");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mib);
        log.clear();
        ASSERT_TRUE(pack(row.mib));
        const Lines debug = messagesOf(log, ANDROID_LOG_DEBUG);
        const auto has = [&](const std::string& line) {
            return std::count(debug.begin(), debug.end(), line) == 1;
        };
        EXPECT_TRUE(has("TarFile::FillSplitTailBlocks split tar [name, size, m_slice] = [" +
                        slice(0) + ", 1536, " + std::to_string(row.slice) + "]"));
        EXPECT_EQ(has("TarFile::PackSplitDir, sliceSize need to be larger than 100, (" +
                      row.remark + " given) \n"),
                  !row.remark.empty());
    }
}

// Every header of the rest fills a slice of its own, for ever.
TEST_F(TarSplitTest, ANegativeSliceSizeGoesOnUntilItIsAborted) {
    writeFile(tree / "src/file", std::string(kChunk + 1, 'c'));
    callBack.onWait = [this] { callBack.isAborted = callBack.slices.size() == 4; };
    EXPECT_FALSE(pack("2048"));
    EXPECT_EQ(callBack.slices, (Lines{slice(0), slice(1), slice(2), slice(3)}));
    EXPECT_EQ(headersOf(readFile(slice(2))).size(), 1u);
    EXPECT_EQ(left(), (Lines{"app.tar.0", "app.tar.1", "app.tar.2", "app.tar.3"}));
}

TEST_F(TarSplitTest, FailuresLeaveTheSlicesThatWereHandedOver) {
    const std::string file = tree / "src/file";
    const auto abort = [this] { callBack.isAborted = true; };
    const auto abortLater = [this] { callBack.isAborted = callBack.slices.size() == 1; };
    const auto lose = [&] { unlink(file.c_str()); };
    const auto replace = [&] { unlink(file.c_str()), makeDir(file); };
    const auto none = [] {};
    const std::string label = "TarFile::FixAttrForSeLinux failed, restorecon_backup_dir " + base;
    const std::string data = "TarFile::PackDir, failed to write data of file: " + file;
    const std::string content = "TarFile::PackDir, failed to write content of file: " + file;
    const std::string lost = "TarFile::FillSplitHeaderBlocks lstat " + file + " error!";
    const std::string other = "TarFile::FillSplitHeaderBlocks " + file + " is no file any more!";
    const struct {
        const char* name;
        std::string refused;
        std::function<void()> onProgress;
        std::function<void()> onWait;
        Lines handedOver;
        Lines left;
        std::string error;
    } rows[] = {
        {"abort in a file", "", abortLater, none, {".0"}, {"app.tar.0"}, content},
        {"abort while waiting", "", none, abort, {".0"}, {"app.tar.0"}, data},
        {"file gone", "", none, lose, {".0"}, {"app.tar.0"}, lost},
        {"first label", ".0", none, none, {}, {}, label + ".0 error!"},
        {"last label", ".1", none, none, {".0"}, {"app.tar.0"}, label + ".1 error!"},
        {"check file",
         ".txt",
         none,
         none,
         {".0", ".1|end"},
         {"app.tar.0", "app.tar.1", "app.tar.txt"},
         label},
        {"a directory by now", "", none, replace, {".0"}, {"app.tar.0"}, other},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(file, std::string(kSlice + kChunk, 'c'));
        emptyOut();
        log.clear();
        callBack = RecordingCallBack();
        callBack.onProgress = row.onProgress;
        callBack.onWait = row.onWait;
        refused = row.refused;
        EXPECT_FALSE(pack());
        for (std::string& handedOver : callBack.slices) {
            handedOver.erase(0, base.size());
        }
        EXPECT_EQ(callBack.slices, row.handedOver);
        EXPECT_EQ(left(), row.left);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors()[0].substr(0, row.error.size()), row.error);
    }
}

// What is still in the stream's buffer has to get out before a slice counts as finished.
TEST_F(TarSplitTest, AFullDiskTakesTheSliceThatIsWrittenAway) {
    for (const size_t behindSlice : {size_t{kChunk}, size_t{10}}) {
        SCOPED_TRACE(behindSlice);
        writeFile(tree / "src/file", std::string(size_t{kSlice} + behindSlice, 'c'));
        emptyOut();
        makeLink("/dev/full", slice(1));
        callBack = RecordingCallBack();
        EXPECT_FALSE(pack());
        EXPECT_EQ(callBack.slices, Lines{slice(0)});
        EXPECT_EQ(left(), Lines{"app.tar.0"});
        ASSERT_FALSE(errors().empty());
    }
}

TEST_F(TarSplitTest, PacksThatCannotBegin) {
    EXPECT_FALSE(pack());
    EXPECT_EQ(errors().back(), "TarFile::PackSplitDir, failed check dir: " + (tree / "src") + "\n");
    base = tree / "no/app.tar";
    EXPECT_FALSE(pack("1", tree.path()));
    EXPECT_EQ(errors().back(), "TarFile::CreateSplitFile, failed to open tar file: " + slice(0) +
                                   ", error: No such file or directory");
    std::string args[TarFile::kSplitArguments];
    EXPECT_FALSE(TarFile(&callBack).PackSplitDir(tree.path(), base, args, kUid));
    EXPECT_EQ(errors().back(), "TarFile::PackSplitDir pre process error!");
}

TEST_F(TarSplitTest, LinesOfTheCheckFile) {
    EXPECT_EQ(UdtoString(0), "0");
    EXPECT_EQ(UdtoString(4294967295u), "4294967295");
    EXPECT_EQ(HandleSplitInfo("/backup/app.tar", 1049600, 0), "app.tar.0|1049600\n");
    EXPECT_EQ(HandleSplitInfo("app.tar", 18446744073709551615ull, 12),
              "app.tar.12|18446744073709551615\n");
    EXPECT_EQ(HandleSplitInfo("/backup/", 1, 2), ".2|1\n");
    EXPECT_EQ(errors(), Lines{});
    EXPECT_EQ(HandleSplitInfo("/backup/app.tar", 0, 0), "");
    EXPECT_EQ(errors(), Lines{"tar size is 0"});
}

TEST_F(TarSplitTest, WhatIsPackedInSlicesComesBack) {
    std::vector<long> sizes;
    for (const long edge : {512l, kChunk, kSlice - 1024, kSlice - 512, kSlice, 3 * kSlice}) {
        sizes.insert(sizes.end(), {edge - 512, edge - 1, edge, edge + 1});
    }
    sizes[0] = 1;  // a slice that holds only empty files is lost
    const Lines files = makeFiles(tree / "src/d", sizes, 2);
    chmod(files[0].c_str(), 0711);
    ASSERT_TRUE(pack());
    makeDir(tree / "to");
    EXPECT_EQ(restore(readFile(base + ".txt")), 0);
    EXPECT_EQ(listTree(tree / "to"), listTree(tree / "src"));
    for (const std::string& file : files) {
        const std::string back = tree / "to/d" + file.substr(file.rfind('/'));
        EXPECT_TRUE(readFile(back) == readFile(file)) << statOf(file).st_size;
        EXPECT_EQ(modeOf(back), modeOf(file));
    }
    EXPECT_EQ(left(), Lines{"app.tar.txt"});
}

TEST_F(TarSplitTest, LinesThatACheckFileMayHave) {
    makeDir(tree / "to");
    const std::string no = "slice tar file " + (tree / "out/");
    const std::string missing = " don't exist, error:No such file or directory";
    const std::string mismatch =
        "the size of the tar file " + slice(0) + " is not equal to the size in the check file\n";
    const std::string blanks(2046 - 14, ' ');
    const std::string tooLong(2046, 'x');
    const struct {
        std::string text;
        std::string error;  // the first; none: restored
    } rows[] = {
        {"app.tar.0|2048\n", ""},
        {"app.tar.0|2048", ""},
        {"app.tar.0|0x800\n", ""},
        {"app.tar.0|04000\n", ""},
        {"app.tar.0| 2048 bytes\n", ""},
        {"app.tar.0|2048" + blanks + "app.tar.1|2048\n", ""},
        {"app.tar.0|2047\n", mismatch},
        {"app.tar.0|\n", mismatch},
        {"app.tar.0|", "subSize is empty"},
        {"app.tar.0", mismatch},
        {"app.tar.0\n", no + "app.tar.0\n" + missing},
        {"\n", no + "\n" + missing},
        {"app.tar.1|2048\napp.tar.2|2048\n", no + "app.tar.2" + missing},
        {"app|app.tar.0|2048\n", no + "app|app.tar.0" + missing},
        {"app.tar.1|2048\n" + tooLong + "|2048\n",
         no + tooLong + " don't exist, error:File name too long"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        log.clear();
        writeFile(slice(0), entry('0', "file", "1") + kEndBlocks);
        writeFile(slice(1), entry('0', "file", "2") + kEndBlocks);
        EXPECT_EQ(restore(row.text), row.error.empty() ? 0 : -1);
        EXPECT_EQ(errors().empty() ? "" : errors()[0], row.error);
        EXPECT_EQ(exists(slice(0)), !row.error.empty());
        EXPECT_EQ(exists(tree / "to/file"), row.error.empty());
        unlink((tree / "to/file").c_str());
    }
    EXPECT_EQ(restore(""), 0);
}

TEST_F(TarSplitTest, ARestoreStopsAtTheSliceThatFails) {
    makeDir(tree / "to");
    writeFile(slice(0), entry('0', "file", "1") + kEndBlocks);
    writeFile(slice(1), entry('0', "file2", "2") + std::string(kBlock, 'x'));
    writeFile(slice(2), kEndBlocks);
    EXPECT_EQ(restore("app.tar.0|2048\napp.tar.1|1536\napp.tar.2|1024\n"), -3);
    EXPECT_EQ(left(), (Lines{"app.tar.1", "app.tar.2", "app.tar.txt"}));
    EXPECT_EQ(listTree(tree / "to"), (Lines{"file", "file2"}));
    EXPECT_EQ(errors().back(), "UnTarFile::UnSplitPack, untar split " + slice(1) + " failed!");
    unlink((base + ".txt").c_str());
    EXPECT_EQ(UnTarFile((base + ".txt").c_str(), nullptr).UnSplitPack("to", 0), -1);
}

TEST_F(TarSplitTest, AnAbortedRestoreSucceedsAndTakesTheSlicesAway) {
    makeDir(tree / "to");
    writeFile(slice(0), entry('0', "whole", "1") + entry('0', "cut", "2") + kEndBlocks);
    writeFile(slice(1), entry('0', "none", "3") + kEndBlocks);
    callBack.asksUntilAbort = 2;
    EXPECT_EQ(restore("app.tar.0|3072\napp.tar.1|2048\n"), 0);
    EXPECT_EQ(left(), Lines{"app.tar.txt"});
    EXPECT_EQ(listTree(tree / "to"), Lines{"whole"});
}

TEST_F(TarSplitTest, ASliceMayEndWhereAWholeArchiveMayNot) {
    makeDir(tree / "to");
    const struct {
        const char* name;
        std::string bytes;
        int result;
    } rows[] = {
        {"nothing", "", 0},
        {"no end blocks", entry('0', "file", "1"), 0},
        {"one end block", entry('0', "file", "1") + std::string(kBlock, '\0'), 0},
        {"an empty block among others", std::string(kBlock, '\0') + entry('0', "file"), 0},
        {"another block", entry('0', "file", "1") + std::string(kBlock, 'x'), -3},
        {"a claim of a chunk more", Header('1', "x", kChunk).bytes(), 0},
        {"a claim of more than that", Header('1', "x", kChunk + 1).bytes(), -5},
        {"a claim of all there can be", Header('1', "x", 077777777777).bytes(), -5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(slice(0), row.bytes);
        EXPECT_EQ(restore("app.tar.0|" + std::to_string(row.bytes.size())), row.result);
        EXPECT_EQ(exists(slice(0)), row.result != 0);
    }
}

}  // namespace
}  // namespace peltex_test
