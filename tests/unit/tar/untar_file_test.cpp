#include "tar/untar_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/tar_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using namespace std::string_literals;

constexpr size_t kChunk = 0x80000;

class UnTarFileTest : public TarTest {
  protected:
    UnTarFileTest() { makeDir(to); }

    int unpack(const std::string& bytes, unsigned uid = 0) {
        writeFile(archive, bytes);
        return UnTarFile(archive.c_str(), &callBack).UnPack(to.c_str(), uid);
    }
    Lines unpacked() const { return listTree(to); }
    std::string targetOf(const std::string& link) const {
        return std::filesystem::read_symlink(to + "/" + link);
    }

    const std::string archive = tree / "a.tar";
    const std::string to = tree / "to";
};

TEST_F(UnTarFileTest, Results) {
    const std::string file = entry('0', "file", "1");
    const std::string zeros(kBlock, '\0');
    const std::string spaces(12, ' ');
    const std::string sevens(12, '7');
    const auto crafted = [](size_t offset, const std::string& text) {
        return Header('0', "file").put(offset, text).bytes();
    };
    // Blanks let the parse of the size run on through the fields behind it, which are digits here.
    const auto claiming = [&](char type, const std::string& size) {
        return Header(type, "b").put(124, size).put(136, sevens).put(157, sevens + sevens).bytes(8);
    };
    std::string unsealed = Header('0', "file").bytes();
    unsealed[0] = 'F';
    const std::string end = kEndBlocks;
    const std::string invalid = "Invalid tar format.\n";
    const std::string ended = "read short than 512 expected, got 0, tarSize ";
    const std::string climbs = "GenRealPath invalid pathName.";
    const std::string odd = "tarfile size should be a multiple of 512 bytes: 1000\n";
    const std::string cut = "read file content shorter than expect!\n";
    const struct {
        const char* name;
        std::string bytes;
        int result;
        std::string error;  // the first, where it begins so
        Lines unpacked = {"file"};
    } rows[] = {
        {"whole", file + end, 0, ""},
        {"more behind the end", file + end + std::string(kBlock, 'x'), 0, ""},
        {"first bytes make an end", file + padded("\0x"s) + padded("\0y"s), 0, ""},
        {"end blocks alone", end, 0, "", {}},
        {"other magic text behind ustar", crafted(262, " 00") + end, 0, ""},
        {"an eight digit checksum", Header('0', "file").bytes(8) + end, 0, ""},
        {"a thousand bytes", (file + end).substr(0, 1000), -3, odd, {}},
        {"nothing", "", -5, ended + "0\n", {}},
        {"no end blocks", file, -5, ended + "1024\n"},
        {"one end block", file + zeros, -3, invalid},
        {"an empty block among others", file + zeros + file, -3, invalid},
        {"wrong checksum", unsealed + end, -3, invalid, {}},
        {"other magic", crafted(257, "uStar") + end, -3, invalid, {}},
        {"all bytes 255", std::string(kBlock, '\xff'), -3, invalid, {}},
        {"climbs", file + entry('0', "a/../../x") + end, -1, climbs},
        {"climbs by a long name", file + longRecord('L', "a/../x") + entry('0', "a"), -1, climbs},
        {"ends in two dots", file + entry('7', "a/..") + end, 0, ""},
        {"claims more than there is", file + claiming('0', sevens), -5, cut},
        {"claims 64 GiB to skip", file + claiming('x', sevens), -5, ended},
        {"claims 64 bits and more", file + claiming('7', spaces), -5, ended},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        EXPECT_EQ(unpack(row.bytes), row.result);
        EXPECT_EQ(errors().empty() ? "" : errors()[0].substr(0, row.error.size()), row.error);
        EXPECT_EQ(errors().empty(), row.error.empty());
        EXPECT_EQ(unpacked(), row.unpacked);
        unlink((to + "/file").c_str());
    }
}

TEST_F(UnTarFileTest, ResultsWithoutAnArchiveOrADestination) {
    EXPECT_EQ(UnTarFile(nullptr, nullptr).UnPack(to.c_str(), 0), -1);
    EXPECT_EQ(UnTarFile(archive.c_str(), nullptr).UnPack(to.c_str(), 0), -1);
    EXPECT_EQ(errors(), (Lines{"read tar happened error!\n", "read tar happened error!\n"}));
    writeFile(archive, "one byte: the destination is looked at first");
    EXPECT_EQ(UnTarFile(archive.c_str(), nullptr).UnPack(nullptr, 0), -2);
}

TEST_F(UnTarFileTest, KindsOfEntries) {
    const std::string body(513, 'c');
    const struct {
        std::string bytes;
        std::string content;  // of "file" afterwards, which held "before"; "-": gone
        Lines others = {};
    } rows[] = {
        {entry('0', "file", "1"), "1"},
        {entry('\0', "file", "1"), "1"},
        {entry('8', "file", "1"), "1"},
        {entry('9', "file", "1"), "before1"},
        {entry('A', "file", "1"), "before1"},
        {entry('A', "new", body), "before", {"new"}},
        {entry('0', "file"), ""},
        {entry('1', "file", body), "before"},
        {entry('3', "file", body), "before"},
        {entry('7', "file", body), "before"},
        {entry('g', "file", body), "before"},
        {entry('x', "file", body), "before"},
        {entry('5', "dir/"), "before", {"dir/"}},
        {entry('5', "dir"), "before", {"dir/"}},
        {entry('5', "two/levels/"), "before"},
        {entry('5', "file/"), "before"},
        {Header('2', "file").link("to/nowhere").bytes(), "-"},
        {entry('0', "d/one/level", "1"), "before"},
        {Header('0', "d/one").mode(0755).bytes(), "before", {"d/", "d/one"}},
        {Header('A', "d/one").mode(0755).bytes(), "before", {"d/", "d/one"}},
        {Header('0', "file").put(345, "prefix").bytes(), ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(headersOf(row.bytes)[0]);
        writeFile(to + "/file", "before");
        EXPECT_EQ(unpack(row.bytes + entry('0', "next", "1") + kEndBlocks), 0);
        EXPECT_EQ(row.content,
                  access((to + "/file").c_str(), F_OK) == 0 ? readFile(to + "/file") : "-");
        Lines expected = row.others;
        expected.insert(expected.end(), {"file", "next"});
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(unpacked(), expected);
        for (const std::string& name : unpacked()) {
            remove((to + "/" + name).c_str());
            remove((to + "/d").c_str());
        }
    }
}

TEST_F(UnTarFileTest, LongRecordsNameTheNextEntryAlone) {
    const std::string name(255, 'n');
    std::string target;
    while (target.size() < 2046) {
        target += "t/";
    }
    const std::string tooLong(2047, 'x');
    const std::string link = Header('2', "link").link("short").bytes();
    EXPECT_EQ(
        unpack(longRecord('K', target) + longRecord('L', name) + link + entry('0', "second", "2") +
               longRecord('L', "replaced") + longRecord('L', "later") + entry('0', "third") +
               longRecord('L', tooLong) + entry('0', "own") + kEndBlocks),
        0);
    EXPECT_EQ(unpacked(), (Lines{"later", name, "own", "second"}));
    EXPECT_EQ(targetOf(name), target);
    EXPECT_EQ(unpack(longRecord('K', tooLong) + link + kEndBlocks), 0);
    EXPECT_EQ(targetOf("link"), "short");
    EXPECT_EQ(unpack(Header('L', "cut", 600).bytes() + std::string(kBlock, 'n')), -5);
}

TEST_F(UnTarFileTest, ATargetMayHave2047Bytes) {
    std::string name = "d";
    while (name.size() < 2047 - to.size() - 1) {
        name += "/";
    }
    EXPECT_EQ(unpack(longRecord('L', name) + entry('5', "d") + kEndBlocks), 0);
    EXPECT_EQ(unpacked(), Lines{"d/"});
    EXPECT_EQ(unpack(longRecord('L', name + "/") + entry('5', "e") + kEndBlocks), -1);
    EXPECT_EQ(errors(), Lines{});
}

TEST_F(UnTarFileTest, NamesWithoutANulGoOnIntoTheNextField) {
    const std::string name(100, 'n');
    EXPECT_EQ(unpack(Header('0', name).bytes() + kEndBlocks), 0);
    EXPECT_EQ(unpacked(), Lines{name + "0000644"});
    EXPECT_EQ(unpack(Header('2', "link").link(name).bytes() + kEndBlocks), 0);
    EXPECT_EQ(targetOf("link"), name + "ustar");

    // No NUL in the whole block: too long for a name, and one more entry that cannot be made.
    std::string block = Header('0', std::string(kBlock, 'n')).put(500, "nnnnnnnnnnnn").bytes(8);
    std::replace(block.begin(), block.end(), '\0', '0');
    const std::string sealed = Header('0', block).put(0, block).bytes(8);
    log.clear();
    EXPECT_EQ(unpack(sealed + kEndBlocks), 0);
    EXPECT_EQ(errors(), Lines{"create file fail!skip!"});
}

TEST_F(UnTarFileTest, OwnersAreMappedAndModesAreThoseOfTheHeader) {
    const struct {
        unsigned uid, gid, target;
        std::string owner;
    } rows[] = {
        {0, 0, 10123, "0:0"},
        {9999, 10050, 10123, "9999:10050"},
        {10050, 10050, 10123, "10123:10123"},
        {10050, 20050, 10123, "10123:20123"},
        {10050, 1028, 10123, "10123:1028"},
        {10050, 10050, 0, "10050:10050"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.owner);
        std::string bytes;
        for (const char type : {'0', '5', '2'}) {
            bytes += Header(type, std::string("n") + type)
                         .mode(01751)
                         .owner(row.uid, row.gid)
                         .link("x")
                         .bytes();
        }
        EXPECT_EQ(unpack(bytes + kEndBlocks, row.target), 0);
        EXPECT_EQ(ownerAndMode(to + "/n0"), row.owner + " 1751");
        EXPECT_EQ(ownerAndMode(to + "/n5"), row.owner + " 1751");
        EXPECT_EQ(ownerAndMode(to + "/n2"), row.owner + " 777");
    }
}

TEST_F(UnTarFileTest, WhatAnApplicationPatchedItselfIsNotUnpacked) {
    const std::string dir = "com.tencent.mm/tinker";
    EXPECT_EQ(unpack(Header('5', "com.tencent.mm/").mode(0755).bytes() + entry('5', dir + "/") +
                     entry('0', dir + "/patch", "1") + entry('5', dir + "X/") + kEndBlocks),
              0);
    EXPECT_EQ(unpacked(), (Lines{"com.tencent.mm/", dir + "X/"}));
    const std::string ignored = "UnTarFile::filterDir ignore tinker dir: " + to + "/" + dir;
    EXPECT_EQ(errors(), (Lines{ignored + "/", ignored + "/patch", "create file fail!skip!"}));
    EXPECT_FALSE(UnTarFile(nullptr, nullptr).FilterDir("/com.tencent.mm/tinker"));
}

// A directory of that name which is there already gets its mode, unless a long name led to it.
TEST_F(UnTarFileTest, ALongNameKeepsAPatchDirectoryAsItIs) {
    const std::string dir = "com.tencent.mm/tinker/";
    makeDir(to + "/" + dir, 0700);
    EXPECT_EQ(unpack(longRecord('L', dir) + Header('5', "x").mode(0755).bytes() + kEndBlocks), 0);
    EXPECT_EQ(modeOf(to + "/" + dir), 0700u);
    EXPECT_EQ(unpack(Header('5', dir).mode(0755).bytes() + kEndBlocks), 0);
    EXPECT_EQ(modeOf(to + "/" + dir), 0755u);
}

TEST_F(UnTarFileTest, AListingHasTheRegularFilesAndParsesOnce) {
    const std::string name(120, 'n');
    writeFile(archive, entry('5', "d/") + entry('0', "d/a", "1") +
                           Header('2', "link").link("x").bytes() + longRecord('L', name) +
                           entry('8', "cut", std::string(600, 'c')) + entry('0', "b") + kEndBlocks);
    UnTarFile untar(archive.c_str(), nullptr);
    const Lines expected = {"d/a", name, "b"};
    EXPECT_EQ(untar.GetFileNames(), expected);
    EXPECT_EQ(untar.GetFileNames(), expected);
    const Lines debug = messagesOf(log, ANDROID_LOG_DEBUG);
    EXPECT_EQ(std::count(debug.begin(), debug.end(), "untarfile is end.Success!"), 1);
    EXPECT_EQ(unpacked(), Lines{});
}

TEST_F(UnTarFileTest, ProgressIsAHeaderPerChunk) {
    EXPECT_EQ(unpack(entry('0', "file", std::string(2 * kChunk + 1, 'c')) + entry('0', "empty") +
                     kEndBlocks),
              0);
    EXPECT_EQ(callBack.progress, (std::vector<unsigned long>{512, 512, 512}));
}

TEST_F(UnTarFileTest, AnAbortTakesThePartialFileAwayAndSucceeds) {
    callBack.asksUntilAbort = 3;
    EXPECT_EQ(unpack(entry('0', "whole", "1") + entry('0', "cut", std::string(2 * kChunk, 'c')) +
                     entry('0', "later") + kEndBlocks),
              0);
    EXPECT_EQ(unpacked(), Lines{"whole"});
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_DEBUG).back(), "aborded in unTar task.");
}

TEST_F(UnTarFileTest, AFileThatCannotBeWrittenIsLeftOut) {
    makeDir(to + "/dir");
    makeLink("/dev/full", to + "/full");
    EXPECT_EQ(unpack(entry('0', "dir", "1") + entry('0', "full", std::string(kChunk, 'c')) +
                     entry('0', "next", "1") + kEndBlocks),
              0);
    EXPECT_EQ(unpacked(), (Lines{"dir/", "next"}));
    EXPECT_EQ(errors(),
              (Lines{"create file fail!skip!", "write file content shorter than expect!\n"}));
}

}  // namespace
}  // namespace peltex_test
