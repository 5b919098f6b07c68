// What hostile input reaches, and what it does not, with one row per line of docs/BOUNDARIES.md.
// The formats let some of it out by design: such a row fails when it no longer does, and the
// document has to change with it.
#include "tests/unit/boundaries/boundary_test.h"

#include <host/log_tap.h>
#include <sys/sysmacros.h>

#include <fstream>

#include "tar/untar_file.h"

namespace peltex_test {
namespace {

namespace fs = std::filesystem;

class Reach;

// One input: how it is made and used, the result of the last task, and what it reaches.
struct Row {
    const char* name;
    int32_t (*act)(Reach& test);
    int32_t result;
    Lines reached;
};

class Reach : public BoundaryTest, public testing::WithParamInterface<Row> {
  public:
    static std::string link(const std::string& name, const std::string& target) {
        return Header('2', name).link(target).bytes();
    }

    int32_t restoreTar(const std::string& entries) {
        const std::string archive = write("a.tar", entries + kEndBlocks);
        remember();
        return run("restore tar", archive, to);
    }
    // To `to/app`: entries land in `to`.
    int32_t restoreSlices(const std::string& checkFile) {
        const std::string path = write("s.tar.txt", checkFile);
        remember();
        return run("restore split", path, to + "/app");
    }
    int32_t restoreDir(const std::string& records) {
        makeDir(hostile + "/to");
        write("to.txt", records);
        remember();
        return run("restore dir", hostile, to);
    }
    // As application "com.app".
    int32_t backupByFile(const std::string& list) {
        const std::string path = write("list", list);
        remember();
        return run("backup byfile", path, to + "/com.app");
    }
    int32_t listBySearch(const std::string& search) {
        const std::string path = write("search", search);
        remember();
        return run("get_brief byfile", path, to + "/brief");
    }
    // Of `hostile/src`.
    int32_t runOnSource(const std::string& command) {
        remember();
        return run(command, hostile + "/src", to + (command == "get_brief dir" ? "/brief" : ""));
    }
    int32_t onSourceWithLinks(const std::string& command) {
        write("src/file", "x");
        makeLink(outside + "/secret", hostile + "/src/link");
        makeLink(outside, hostile + "/src/dir");
        return runOnSource(command);
    }
    int32_t onSourceThatIsALink(const std::string& command) {
        makeLink(outside, hostile + "/src");
        return runOnSource(command);
    }
    int32_t onSourceWithHardLink(const std::string& command) {
        makeDir(hostile + "/src");
        fs::create_hard_link(outside + "/secret", hostile + "/src/file");
        return runOnSource(command);
    }
    // A name that looks like a whole record with the path of a file elsewhere behind it: the record
    // of that file is the application's own, with its mode.
    void makeNameWithLineFeed() {
        write("src/a", "x");
        const std::string top = hostile + "/src/a;420;0;1;1\n";
        writeFile(top + outside + "/secret", "x", 04777);
        chmod((top + "/tmp").c_str(), statOf("/tmp").st_mode & 07777);
    }
    // A link where a task on `hostile/src` writes.
    int32_t throughLinkAt(const std::string& name, const std::string& command,
                          const std::string& target) {
        write("src/file", "x");
        write("search", "[include]" + hostile + "/src");
        makeLink(target, to + "/" + name);
        return command == "get_brief byfile"
                   ? (remember(), run(command, hostile + "/search", to + "/brief"))
                   : runOnSource(command);
    }
    int32_t restoreFileOnto(const std::string& target) {
        const std::string source = write("file", "x");
        remember();
        return run("restore file", source, target);
    }
    int32_t restoreDirOnto(const std::string& name, const std::string& target) {
        write("to/" + name, "x");
        makeLink(target, to + "/" + name.substr(0, name.find('/')));
        remember();
        return run("restore dir", hostile, to);
    }
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}

TEST_P(Reach, IsAsListed) {
    const Row& row = GetParam();
    EXPECT_EQ(row.act(*this), row.result);
    EXPECT_EQ(reached(), row.reached);
}

// The application swaps a directory and a file with links while its tree is walked.
TEST_F(BoundaryTest, ASourceThatIsSwappedInALoop) {
    const std::string source = hostile + "/src";
    remember();
    for (int round = 0; round < 200; ++round) {
        for (const std::string& path : {hostile, to}) {
            fs::remove_all(path);
            makeDir(path);
        }
        write("src/d/kept", "x");
        write("src/f", "x");
        makeLink(outside, hostile + "/d");
        makeLink(outside + "/secret", hostile + "/f");
        std::atomic<bool> isOver{false};
        std::thread application([&] {
            while (!isOver) {
                for (const char* name : {"/d", "/f"}) {
                    renameat2(AT_FDCWD, (source + name).c_str(), AT_FDCWD, (hostile + name).c_str(),
                              RENAME_EXCHANGE);
                }
            }
        });
        const char* const commands[] = {"backup dir", "backup tar", "get_brief dir", "move dir"};
        const std::string command = commands[round % 4];
        run(command, source, to + (command == "get_brief dir" ? "/brief" : ""));
        isOver = true;
        application.join();
        ASSERT_EQ(reached(), Lines{}) << command << ", round " << round;
    }
}

// Nothing fills the last block of a file of 2 GiB and a bit, so a reader goes on in the middle of
// the next file's header: at its magic, which becomes a name, with the fields behind it in the
// content.
TEST_F(BoundaryTest, ContentBehindAFileOf2GiB) {
    constexpr size_t kMagic = 257;
    constexpr size_t kSum = 3000;  // also the size and whatever else is read from the same digits
    const std::string next = Header('0', "b", 8192).bytes();
    std::string content = "\r\rustar\r" + octal(kSum, 6);
    content.resize(kMagic, '\0');
    const size_t missing = kSum - sumOf(next.substr(kMagic) + content);
    for (size_t i = 0; i <= missing / 255; ++i) {
        content[100 + i] = static_cast<char>(i < missing / 255 ? 255 : missing % 255);
    }
    content.resize(kMagic + (kSum + kBlock - 1) / kBlock * kBlock);
    content += Header('2', "l").link(outside).bytes() + entry('0', "l/new", "x") + kEndBlocks;

    constexpr uint64_t kSize = (uint64_t{1} << 31) + kBlock - kMagic;
    const std::string archive = write("a.tar", Header('0', "a", kSize).bytes());
    fs::resize_file(archive, kBlock + kSize);
    std::ofstream(archive, std::ios::app | std::ios::binary) << next + content;
    fs::resize_file(archive, (fs::file_size(archive) + kBlock - 1) / kBlock * kBlock);
    EXPECT_EQ(android::installd::UnTarFile(archive.c_str(), nullptr).GetFileNames(),
              (Lines{"a", "ustar", "l/new"}));
}

const Row kArchiveRows[] = {
    {"ClimbingName",
     [](Reach& t) { return t.restoreTar(entry('0', "x/../../to2/f", "x")); },
     -1,
     {}},
    {"AbsoluteName",
     [](Reach& t) { return t.restoreTar(entry('0', t.outside + "/secret", "x")); },
     0,
     {}},
    {"ALongerNameThanAPath",
     [](Reach& t) {
         return t.restoreTar(longRecord('L', std::string(2046, 'n')) + entry('0', "f"));
     },
     -1,
     {}},
    {"TheDirectoryAbove",
     [](Reach& t) { return t.restoreTar(Header('5', "..").mode(0777).owner(1, 2).bytes()); },
     0,
     {"parent: 1:2 777"}},
    {"BelowItsOwnLink",
     [](Reach& t) {
         return t.restoreTar(t.link("l", t.outside + "/dir") + entry('0', "l/kept", "x") +
                             entry('0', "l/new", "x") + entry('5', "l/d/"));
     },
     0,
     {"outside/dir/kept: written", "outside/dir/d: made", "outside/dir/new: made"}},
    {"InPlaceOfItsOwnLink",
     [](Reach& t) {
         return t.restoreTar(t.link("l", t.outside + "/secret") +
                             Header('0', "l").mode(0666).owner(10001, 10001).bytes());
     },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 666"}},
    {"DirectoryInPlaceOfItsOwnLink",
     [](Reach& t) {
         return t.restoreTar(t.link("l", t.outside + "/secret") +
                             Header('5', "l").mode(0666).owner(1, 1).bytes());
     },
     0,
     {"outside/secret: 1:1 666"}},
    {"RemovesBelowItsOwnLink",
     [](Reach& t) {
         return t.restoreTar(t.link("l", t.outside) + t.link("l/secret", "/") +
                             Header('0', "l/empty", 5000).bytes());
     },
     -1,
     {"outside/empty: removed", "outside/secret: replaced"}},
    {"DevicesAndHardLinks",
     [](Reach& t) {
         std::string entries;
         for (const char type : {'1', '3', '4', '6', '7'}) {
             entries += Header(type, "n").link(t.outside + "/secret").bytes();
         }
         const int32_t result = t.restoreTar(entries);
         EXPECT_EQ(listTree(t.to), Lines{});
         return result;
     },
     0,
     {}},
    {"SetUserId",
     [](Reach& t) {
         const int32_t result =
             t.restoreTar(Header('0', "root").mode(06755).bytes() +
                          Header('0', "app").mode(06755).owner(10001, 10001).bytes() +
                          Header('0', "nobody")
                              .mode(06755)
                              .put(108, std::string(16, ' '))
                              .put(124, octal(0, 12))
                              .bytes());
         EXPECT_EQ(ownerAndMode(t.to + "/root"), "0:0 755");
         EXPECT_EQ(ownerAndMode(t.to + "/app"), "10123:10123 755");
         EXPECT_EQ(modeOf(t.to + "/nobody"), 0755U);
         return result;
     },
     0,
     {}},
    {"FilesOfOtherOwners",
     [](Reach& t) {
         const int32_t result = t.restoreTar(Header('0', "f").owner(1000, 1005).bytes());
         EXPECT_EQ(ownerAndMode(t.to + "/f"), "1000:1005 644");
         return result;
     },
     0,
     {}},
    {"SlicesLandBesideTheDestination",
     [](Reach& t) {
         t.write("s.tar.0", entry('0', "to2/f", "x") + kEndBlocks);
         t.write("s.tar.txt", "s.tar.0|2048\n");
         t.remember();
         return t.run("restore split", t.hostile + "/s.tar.txt", t.to);
     },
     0,
     {"to2/f: written"}},
};

const Row kCheckFileRows[] = {
    {"AnothersArchive",
     [](Reach& t) {
         const std::string archive = entry('0', "f", kSecret) + kEndBlocks;
         writeFile(t.beside + "/own.tar", archive);
         return t.restoreSlices("../to2/own.tar|" + std::to_string(archive.size()));
     },
     0,
     {"to2/own.tar: removed", "secret read"}},
    {"WhatReadsAsEmpty",
     [](Reach& t) {
         mknod((t.outside + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3));
         makeSocket(t.outside + "/socket");
         makeDir(t.outside + "/d");
         std::string lines;
         for (const char* name : {"empty|0", "zeros|1024", "null|0", "socket|0", "d|40"}) {
             lines += BoundaryTest::climbingTo(t.outside) + "/" + name + "\n";
         }
         return t.restoreSlices(lines);
     },
     0,
     {"outside/d: removed", "outside/empty: removed", "outside/null: removed",
      "outside/socket: removed", "outside/zeros: removed"}},
    {"WhatIsNoArchive",
     [](Reach& t) {
         return t.restoreSlices(BoundaryTest::climbingTo(t.outside + "/secret") + "|" +
                                std::to_string(kSecret.size()));
     },
     -1,
     {}},
    {"AWrongSize",
     [](Reach& t) {
         t.write("s.tar.0", kEndBlocks);
         return t.restoreSlices("s.tar.0|1024\n" + BoundaryTest::climbingTo(t.outside + "/empty") +
                                "|1");
     },
     -1,
     {}},
};

const Row kRecordRows[] = {
    {"AnyMode",
     [](Reach& t) { return t.restoreDir(t.outside + "/secret;2559;0;1;1\n"); },
     0,
     {"outside/secret: 0:0 4777"}},
    {"LinksAndDevices",
     [](Reach& t) {
         makeLink(t.outside + "/secret", t.outside + "/link");
         return t.restoreDir(t.outside + "/link;511;0;1;1\n" + t.outside + "/dir;511;1;1;1\n");
     },
     0,
     {}},
    {"ALinkInItsPlace",
     [](Reach& t) {
         writeFile(t.outside + "/paths", "/" + kSecret);
         makeLink(t.outside + "/paths", t.hostile + "/to.txt");
         makeDir(t.hostile + "/to");
         t.remember();
         return t.run("restore dir", t.hostile, t.to);
     },
     0,
     {"secret logged"}},
};

const Row kListRows[] = {
    {"AnyFile",
     [](Reach& t) { return t.backupByFile(t.outside + "/secret;384;0;6;1\n"); },
     0,
     {"secret read"}},
    {"AClimbingLine",
     [](Reach& t) {
         makeDir(t.hostile + "/com.app");
         return t.backupByFile(t.hostile + "/com.app/" + BoundaryTest::climbingTo(t.outside) +
                               "/secret;384;0;6;1\n");
     },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 771"}},
    {"LinksAndDevices",
     [](Reach& t) {
         makeLink(t.outside + "/secret", t.outside + "/link");
         makeFifo(t.outside + "/fifo");
         return t.backupByFile(t.outside + "/link;384;0;6;1\n" + t.outside + "/fifo;384;0;6;1\n" +
                               "/dev/zero;384;0;6;1\n");
     },
     0,
     {}},
};

const Row kSearchRows[] = {
    {"AnyDirectory",
     [](Reach& t) { return t.listBySearch("[include]" + t.outside + "\n"); },
     0,
     {"secret named"}},
};

const Row kSourceRows[] = {
    {"LinksInACopy", [](Reach& t) { return t.onSourceWithLinks("backup dir"); }, 0, {}},
    {"LinksInAnArchive", [](Reach& t) { return t.onSourceWithLinks("backup tar"); }, 0, {}},
    {"LinksInABrief", [](Reach& t) { return t.onSourceWithLinks("get_brief dir"); }, 0, {}},
    {"LinksInAMove", [](Reach& t) { return t.onSourceWithLinks("move dir"); }, -1, {}},
    {"ItselfALinkInACopy",
     [](Reach& t) { return t.onSourceThatIsALink("backup dir"); },
     0,
     {"secret read"}},
    {"ItselfALinkInAnArchive",
     [](Reach& t) { return t.onSourceThatIsALink("backup tar"); },
     0,
     {"secret read"}},
    {"ItselfALinkInABrief",
     [](Reach& t) { return t.onSourceThatIsALink("get_brief dir"); },
     0,
     {"secret named"}},
    {"ItselfALinkInAMove",
     [](Reach& t) { return t.onSourceThatIsALink("move dir"); },
     0,
     {"outside/dir: removed", "outside/dir/kept: removed", "outside/empty: removed",
      "outside/secret: removed", "outside/zeros: removed", "secret read"}},
    {"HardLinksInACopy",
     [](Reach& t) { return t.onSourceWithHardLink("backup dir"); },
     0,
     {"secret read"}},
    {"HardLinksInAnArchive", [](Reach& t) { return t.onSourceWithHardLink("backup tar"); }, 0, {}},
    {"ALineFeedInAName",
     [](Reach& t) {
         t.makeNameWithLineFeed();
         t.remember();
         EXPECT_EQ(t.run("backup dir", t.hostile + "/src", t.to), 0);
         EXPECT_EQ(t.reached(), Lines{});
         return t.run("restore dir", t.to, t.hostile + "/src");
     },
     0,
     {"outside/secret: 0:0 4777"}},
    {"ALineFeedInANameOfABrief",
     [](Reach& t) {
         t.makeNameWithLineFeed();
         t.remember();
         EXPECT_EQ(t.run("get_brief dir", t.hostile + "/src", t.to + "/list"), 0);
         return t.run("backup byfile", t.to + "/list", t.to + "/src");
     },
     0,
     {"secret read"}},
    {"ContentTakenForEntries",
     [](Reach& t) {
         // The second file's header promises a block more than its content and the rest of the
         // slice have: the third one's own header goes there, and its content is read as headers.
         const std::string contents[] = {
             std::string(523264, 'x'), std::string(523776, 'x'),
             t.link("l", t.outside + "/dir") + entry('0', "l/new", "x") + kEndBlocks};
         for (int i = 0; i < 3; ++i) {
             t.write("src/" + std::string(70, 'n') + std::to_string(i), "");
         }
         const std::string* content = contents;
         for (const auto& file : fs::directory_iterator(t.hostile + "/src")) {
             writeFile(file.path(), *content++);
         }
         t.remember();
         EXPECT_EQ(t.runSplit(t.hostile + "/src", t.hostile), 0);
         EXPECT_EQ(t.reached(), Lines{});
         return t.run("restore split", t.hostile + "/src.tar.txt", t.to + "/app");
     },
     0,
     {"outside/dir/new: made"}},
    {"SwappedBetweenLookAndRead",
     [](Reach& t) {
         // A target that is a link is told in the log, between the look at the file and its
         // opening.
         t.write("src/f", "x");
         makeLink("other", t.to + "/src/f");
         writeFile(t.to + "/src/other", "x");
         auto tap = android::host::setLogTap(nullptr);
         android::host::setLogTap([&t](int, const char*, const std::string& message) {
             if (message.find("Failed to isDir S_ISLNK") == 0) {
                 unlink((t.hostile + "/src/f").c_str());
                 makeLink(t.outside + "/secret", t.hostile + "/src/f");
             }
         });
         const int32_t result = t.runOnSource("backup dir");
         android::host::setLogTap(std::move(tap));
         return result;
     },
     -1,
     {}},
};

const Row kDestinationRows[] = {
    {"LinkAtTheArchive",
     [](Reach& t) { return t.throughLinkAt("src.tar", "backup tar", t.outside + "/secret"); },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 660"}},
    {"LinkAtASlice",
     [](Reach& t) { return t.throughLinkAt("src.tar.0", "backup split", t.outside + "/secret"); },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 660"}},
    {"LinkAtTheCheckFile",
     [](Reach& t) { return t.throughLinkAt("src.tar.txt", "backup split", t.outside + "/secret"); },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 660"}},
    {"LinkAtTheRecords",
     [](Reach& t) { return t.throughLinkAt("src.txt", "backup dir", t.outside + "/secret"); },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 771"}},
    {"LinkAtABrief",
     [](Reach& t) { return t.throughLinkAt("brief", "get_brief dir", t.outside + "/secret"); },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 771"}},
    {"LinkAtAnIncludeBrief",
     [](Reach& t) { return t.throughLinkAt("brief", "get_brief byfile", t.outside + "/secret"); },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 771"}},
    {"LinkAtARestoredFile",
     [](Reach& t) {
         makeLink(t.outside + "/secret", t.to + "/f");
         return t.restoreFileOnto(t.to + "/f");
     },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 771"}},
    {"HardLinkAtARestoredFile",
     [](Reach& t) {
         fs::create_hard_link(t.outside + "/secret", t.to + "/f");
         return t.restoreFileOnto(t.to + "/f");
     },
     0,
     {"outside/secret: written", "outside/secret: 10123:10123 771"}},
    {"LinkToAFileInARestoredTree",
     [](Reach& t) { return t.restoreDirOnto("f", t.outside + "/secret"); },
     0,
     {}},
    {"LinkToNothingInARestoredTree",
     [](Reach& t) { return t.restoreDirOnto("f", t.outside + "/new"); },
     0,
     {"outside/new: made"}},
    {"LinkToADirectoryInARestoredTree",
     [](Reach& t) { return t.restoreDirOnto("d/new", t.outside + "/dir"); },
     0,
     {"outside/dir/new: made"}},
    {"LinkToANeighbourInARestoredTree",
     [](Reach& t) { return t.restoreDirOnto("f", t.beside + "/f"); },
     0,
     {"to2/f: written", "to2/f: 10123:10123 771"}},
    {"LinkToADirectoryUnderAnArchive",
     [](Reach& t) {
         makeLink(t.outside + "/dir", t.to + "/d");
         return t.restoreTar(Header('5', "d/").mode(0700).bytes() + entry('0', "d/kept", "x"));
     },
     0,
     {"outside/dir: 0:0 700", "outside/dir/kept: written"}},
};

std::string nameOf(const testing::TestParamInfo<Row>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Archive, Reach, testing::ValuesIn(kArchiveRows), nameOf);
INSTANTIATE_TEST_SUITE_P(CheckFile, Reach, testing::ValuesIn(kCheckFileRows), nameOf);
INSTANTIATE_TEST_SUITE_P(Records, Reach, testing::ValuesIn(kRecordRows), nameOf);
INSTANTIATE_TEST_SUITE_P(List, Reach, testing::ValuesIn(kListRows), nameOf);
INSTANTIATE_TEST_SUITE_P(Search, Reach, testing::ValuesIn(kSearchRows), nameOf);
INSTANTIATE_TEST_SUITE_P(Source, Reach, testing::ValuesIn(kSourceRows), nameOf);
INSTANTIATE_TEST_SUITE_P(Destination, Reach, testing::ValuesIn(kDestinationRows), nameOf);

}  // namespace
}  // namespace peltex_test
