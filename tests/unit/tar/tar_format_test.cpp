// Every byte of what is packed: fields are compared and blanked, and nothing may be left.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tar/tar_file.h"
#include "tests/support/tar_test.h"

namespace peltex_test {
namespace {

using android::installd::TarFile;
using namespace std::string_literals;

// As text, up to the NUL that ends each field.
struct Fields {
    std::string name = {};
    char type = '0';
    std::string size = "00000000000";
    std::string mode = "0000644";
    std::string uid = "0000000";
    std::string gid = "0000000";
    std::string mtime = "11145401322";
    std::string link = {};
    std::string uname = "root";
    std::string gname = "root";
};

Fields recordFields(char type, const std::string& size) {
    return {"././@LongLink", type,          size, "0000000", "0000000",
            "0000000",       "00000000000", "",   "",        ""};
}

class TarFormatTest : public TarTest {
  protected:
    // Sets what the header shows of the entry; the owner first, since that takes set-id bits away.
    void mark(const std::string& name, mode_t mode, uid_t uid = 0, gid_t gid = 0,
              time_t mtime = 1234567890) {
        const std::string path = tree / "src/" + name;
        ASSERT_EQ(lchown(path.c_str(), uid, gid), 0);
        if (!S_ISLNK(statOf(path).st_mode)) {
            ASSERT_EQ(chmod(path.c_str(), mode), 0);
        }
        const timespec times[2] = {{mtime, 0}, {mtime, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    std::string pack() {
        EXPECT_TRUE(TarFile(&callBack).PackDir((tree / "src").c_str(), (tree / "a.tar").c_str()));
        EXPECT_EQ(errors(), Lines{});
        return readFile(tree / "a.tar");
    }

    static void expectHeader(const std::string& archive, size_t at, const Fields& fields) {
        ASSERT_LE(at + kBlock, archive.size());
        std::string block = archive.substr(at, kBlock);
        const std::string sum = octal(sumOf(block), 6) + "\0 "s;
        const auto takes = [&](const char* field, size_t offset, const std::string& text) {
            EXPECT_EQ(block.substr(offset, text.size()), text) << field;
            block.replace(offset, text.size(), text.size(), '\0');
        };
        takes("name", 0, fields.name);
        takes("mode", 100, fields.mode);
        takes("uid", 108, fields.uid);
        takes("gid", 116, fields.gid);
        takes("size", 124, fields.size);
        takes("mtime", 136, fields.mtime);
        takes("chksum", 148, sum);
        takes("typeflag", 156, {fields.type});
        takes("linkname", 157, fields.link);
        takes("magic, version", 257,
              "ustar\0"
              "0\0"s);
        takes("uname", 265, fields.uname);
        takes("gname", 297, fields.gname);
        EXPECT_EQ(block, std::string(kBlock, '\0'));
    }
};

TEST_F(TarFormatTest, AFile) {
    writeFile(tree / "src/file", "hello");
    mark("file", 07751, 10050, 1028);
    const std::string archive = pack();
    expectHeader(archive, 0,
                 {"file", '0', "00000000005", "0007751", "0023502", "0002004", "11145401322", "",
                  "10050", "1028"});
    EXPECT_EQ(archive.substr(kBlock), padded("hello") + kEndBlocks);
}

TEST_F(TarFormatTest, ADirectoryAndALink) {
    makeDir(tree / "src/dir");
    mark("dir", 01777, 1, 2);
    const std::string directory = pack();
    Fields fields = {"dir/", '5', "00000000000", "0001777", "0000001", "0000002"};
    fields.uname = "daemon";
    fields.gname = "bin";
    expectHeader(directory, 0, fields);
    EXPECT_EQ(directory.substr(kBlock), kEndBlocks);

    rmdir((tree / "src/dir").c_str());
    makeLink("../no where", tree / "src/link");
    mark("link", 0);
    fields = {"link", '2', "00000000000", "0000777"};
    fields.link = "../no where";
    expectHeader(pack(), 0, fields);
}

TEST_F(TarFormatTest, ALongTargetPrecedesALongName) {
    const std::string name(120, 'n');
    const std::string target(150, 't');
    makeLink(target, tree / "src/" + name);
    mark(name, 0);
    const std::string archive = pack();
    expectHeader(archive, 0, recordFields('K', "00000000227"));
    EXPECT_EQ(archive.substr(kBlock, kBlock), padded(target));
    expectHeader(archive, 2 * kBlock, recordFields('L', "00000000171"));
    EXPECT_EQ(archive.substr(3 * kBlock, kBlock), padded(name));
    Fields fields = {std::string(99, 'n'), '2', "00000000000", "0000777"};
    fields.link = std::string(99, 't');
    expectHeader(archive, 4 * kBlock, fields);
    EXPECT_EQ(archive.substr(5 * kBlock), kEndBlocks);
}

TEST_F(TarFormatTest, NamesAndTargetsOfAHundredBytesHaveRecords) {
    const struct {
        char type;
        size_t name;
        size_t target;
        Lines records;
    } rows[] = {
        {'0', 98, 0, {}},     {'0', 99, 0, {}},     {'0', 100, 0, {"L"}}, {'0', 101, 0, {"L"}},
        {'0', 255, 0, {"L"}}, {'5', 98, 0, {}},     {'5', 99, 0, {"L"}},  {'2', 1, 99, {}},
        {'2', 1, 100, {"K"}}, {'2', 1, 511, {"K"}}, {'2', 1, 512, {"K"}}, {'2', 1, 2047, {"K"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.type << ' ' << row.name << ' ' << row.target);
        const TempTree one;
        const std::string name(row.name, 'n');
        const std::string target(row.target, 't');
        row.type == '0'   ? writeFile(one / name, "")
        : row.type == '5' ? makeDir(one / name)
                          : makeLink(target, one / name);
        ASSERT_TRUE(TarFile(nullptr).PackDir(one.path().c_str(), (tree / "a.tar").c_str()));
        const std::string stored = name + (row.type == '5' ? "/" : "");
        Lines expected;
        for (const std::string& record : row.records) {
            expected.push_back(record + " " + (record == "K" ? target : stored));
        }
        expected.push_back(std::string{row.type, ' '} + stored.substr(0, 99) + " 0");
        EXPECT_EQ(headersOf(readFile(tree / "a.tar")), expected);
    }
}

TEST_F(TarFormatTest, NumbersKeepTheirLowDigitsAndANulWhereThereIsRoom) {
    constexpr time_t k2To33 = time_t{1} << 33;
    constexpr time_t k2To36 = time_t{1} << 36;
    const struct {
        uid_t id;
        std::string idField;
        std::string idName;
        time_t mtime;
        std::string mtimeField;
    } rows[] = {
        {0, "0000000\0"s, "root", 0, "00000000000\0"s},
        {07777777, "7777777\0"s, "2097151", k2To33 - 1, "77777777777\0"s},
        {010000000, "10000000", "2097152", k2To33, "100000000000"},
        {077777777, "77777777", "16777215", k2To36 - 1, "777777777777"},
        {0100000000, "0000000\0"s, "16777216", k2To36, "00000000000\0"s},
        {0x7fffffff, "77777777", "2147483647", k2To36 + 8, "00000000010\0"s},
        {0x80000000, "0000000\0"s, "-2147483648", -1, "777777777777"},
        {0xfffffffe, "77777776", "-2", -k2To36, "00000000000\0"s},
    };
    writeFile(tree / "src/file", "");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.idName);
        mark("file", 0644, row.id, row.id, row.mtime);
        expectHeader(pack(), 0,
                     {"file", '0', "00000000000", "0000644", row.idField, row.idField,
                      row.mtimeField, "", row.idName, row.idName});
    }
}

TEST_F(TarFormatTest, ContentIsPaddedToWholeBlocks) {
    for (const size_t size : {0u, 1u, 511u, 512u, 513u, 0x7ffffu, 0x80000u, 0x80001u}) {
        SCOPED_TRACE(size);
        const std::string content(size, 'c');
        writeFile(tree / "src/file", content);
        const std::string archive = pack();
        EXPECT_EQ(headersOf(archive), Lines{"0 file " + std::to_string(size)});
        EXPECT_TRUE(archive.substr(kBlock) == padded(content) + kEndBlocks);
    }
}

}  // namespace
}  // namespace peltex_test
