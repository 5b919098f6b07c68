// The folder tar/: packing and unpacking, whole and in slices.
#include <unistd.h>

#include <filesystem>

#include "tar/check_file.h"
#include "tar/entry_headers.h"
#include "tar/slices.h"
#include "tar/tar_file.h"
#include "tar/tar_header.h"
#include "tar/untar_file.h"
#include "tests/support/tar_builder.h"
#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using namespace std::string_literals;

class Archives : public Transcript, public TarCallBack {
  public:
    bool IsAborted() override { return isAborted; }
    void OnTaskProgress(unsigned long bytes) override { hear("progress " + std::to_string(bytes)); }
    void OnPackagedOneSplitTar(const char* slice) override { hear("slice "s + slice); }
    void WaitTaskLocked() override { hear("wait"); }

  protected:
    Archives() {
        commands["pack"] = [this](const Lines& words) {
            const bool isHeard = words.size() < 3;
            TarFile packer(isHeard ? this : nullptr);
            const bool result = packer.PackDir(words.at(0).c_str(), words.at(1).c_str());
            return result ? "= " + packedIn(readFile(words[1])) : exists(words[1]) ? "= left" : "=";
        };
        commands["unpack"] = [this](const Lines& words) {
            writeFile(*tree / "a.tar", archiveOf(words));
            UnTarFile archive((*tree / "a.tar").c_str(), this);
            return "= " + std::to_string(archive.UnPack((*tree / "to").c_str(), 10123));
        };
        commands["list"] = [this](const Lines& words) {
            writeFile(*tree / "a.tar", archiveOf(words));
            UnTarFile archive((*tree / "a.tar").c_str(), nullptr);
            archive.GetFileNames();
            std::string names = "=";
            for (const std::string& name : archive.GetFileNames()) {
                names += " " + name;
            }
            return names;
        };
        // In slices of so many MiB.
        commands["split"] = [this](const Lines& words) {
            const std::string all[TarFile::kSplitArguments] = {"", "", "", "", words.at(0), "info"};
            TarFile packer(this, 1);
            return packer.PackSplitDir(*tree / "src", *tree / "out/s", all, 10123) ? "= true" : "=";
        };
        commands["cut"] = [this](const Lines& words) { return cut(words); };
        // By a check file of these words; ";" ends a line and "_" is a blank.
        commands["restore"] = [this](const Lines& words) {
            std::string list = words.at(0);
            std::replace(list.begin(), list.end(), '_', ' ');
            std::replace(list.begin(), list.end(), ';', '\n');
            writeFile(*tree / "out/s.txt", list);
            UnTarFile set((*tree / "out/s.txt").c_str(), this);
            return "= " + std::to_string(set.UnSplitPack((*tree / "to/x").c_str(), 10123));
        };
    }

    // Packs files of these sizes, in the order of the walk, in slices of 1 MiB. Returns the types
    // and sizes in each slice and the check file.
    std::string cut(const Lines& words) {
        commands["plant"]({"src/", "out/"});
        const size_t length = std::stoul(words.at(0));  // of each name
        for (size_t i = 1; i < words.size(); ++i) {
            writeFile(*tree / "src/" + std::string(length - 1, 'n') + std::to_string(i), "");
        }
        auto size = words.begin();
        for (const auto& file : std::filesystem::directory_iterator(*tree / "src")) {
            std::filesystem::resize_file(file, std::stoul(*++size));
        }
        commands["split"]({"1"});
        const bool isLastGone = std::count(events.begin(), events.end(), "slice end") == 1;
        events.clear();
        std::string result = "=";
        for (int number = 0; exists(*tree / "out/s." + std::to_string(number)); ++number) {
            for (const std::string& header :
                 headersOf(readFile(*tree / "out/s." + std::to_string(number)))) {
                result += std::string(" ") + header[0] + ":" + header.substr(header.rfind(' ') + 1);
            }
            result += " |";
        }
        return result + (isLastGone ? " end | " : " ") + readFile(*tree / "out/s.txt");
    }
};

// Names of 100 bytes and more have a record, and so have targets, which come first. Numbers keep
// their low digits, and a NUL where there is room for one.
TEST_F(Archives, EveryByteOfAnArchive) {
    expect(R"(
$ plant src/f[10050:1028,7751]{1234567890}=hello src/d/[1:2,1777] src/l>../x src/0= src/1=#511
$ plant+ src/2=#512 src/3=#513 src/4=#524289 src/98{0}= src/{n*99}= src/{m*100}= src/{o*255}=
$ plant+ src/{p*98}/ src/{q*99}/ src/l1>{t*99} src/l2>{t*100} src/l3>{t*250} src/{r*100}>{t*101}
$ plant+ src/i1[2097151:2097152,644]{8589934591}= src/i2[16777215:16777216,644]{8589934592}=
$ plant+ src/i3[2147483648:4294967294,644]{68719476735}= src/i4{68719476744}= src/i5{-1}=
$ pack @/src @/a.tar unheard = 0:0= 0:1=#511 0:2=#512 0:3=#513 0:4=#524289 0:98=
    0:f[10050:1028,7751]{1234567890}=hello 0:i1[2097151:2097152,644]{8589934591}=
    0:i2,0000644,77777777,0000000,00000000000,100000000000,16777215,16777216,
    0:i3,0000644,0000000,77777776,00000000000,777777777777,-2147483648,-2, 0:i4{8}=
    0:i5{68719476735}= 0:{n*99}= 2:l1>{t*99} 2:l>../x 5:d/[1:2,1777] 5:{p*98}/ K:{t*100} 2:l2>{t*99}
    K:{t*101} L:{r*100} 2:{r*99}>{t*99} K:{t*250} 2:l3>{t*99} L:{m*100} 0:{m*99}= L:{o*255}
    0:{o*99}= L:{q*99}/ 5:{q*99} end
)");
}

TEST_F(Archives, WhatIsLeftOutOfThem) {
    expect(R"(
$ plant x.dex= .dex= d.dex/ l.dex>y x.dexx= x.Dex= dex= com.tencent.mm/ com.tencent.mm/tinkerX/
$ plant+ d/ one= d/two&one s! p| l>y d/l2&l
? pack @ @/../a.tar unheard = 0:dex= 0:x.Dex= 0:x.dexx= 2:l.dex>y 5:com.tencent.mm/
    5:com.tencent.mm/tinkerX/ 5:d.dex/ 5:d/ end TarFile::PackDir, filter file: @/x.dex
$ plant com.tencent.mm/ com.tencent.mm/tinker/f=
$ pack @ @/../a.tar = 5:com.tencent.mm/ end
TarFile::PackDir, ignore tinker dir [@/com.tencent.mm/tinker]
TarFile::PackDir, filter file: @/com.tencent.mm/tinker
$ plant com.tencent.mm/ com.tencent.mm/tinker>y
? pack @ @/../a.tar = 2:com.tencent.mm/tinker>y 5:com.tencent.mm/ end
$ plant x.dex=
? pack @ @/../a.tar = end TarFile::PackDir, filter file: @/x.dex
$ plant l>y l2&l
? pack @ @/../a.tar = end TarFile::PackDir, filter file: @/l
$ plant p|
$ pack @ @/../a.tar = end
TarFile::PackDir, skip not supported file: @/p, mode: 10000
$ plant
$ pack @ @/a.tar = end
TarFile::PackDir, ignore current tar file
TarFile::PackDir, filter file: @/a.tar
)");
    unlink("/data/data/a.tar");
}

TEST_F(Archives, SourcesAndTargets) {
    expect(R"(
$ plant f= d/ d.tar/
? pack '' @/a.tar = TarFile::PackDir, failed check dir: 
$ pack / @/a.tar =
TarFile::PackDir, clear end slash of path: 
TarFile::PackDir, failed to get stat of src dir: , error: No such file or directory
TarFile::PackDir, failed check dir: /
? pack @/no @/a.tar = TarFile::PackDir, failed check dir: @/no
$ pack @/f @/a.tar =
TarFile::PackDir, src dir is not directory: @/f
TarFile::PackDir, failed check dir: @/f
? pack @/d @/no/a.tar = TarFile::PackDir, failed to open tar file: @/no/a.tar, error: No such file
    or directory
? pack @/d @/d.tar = left TarFile::PackDir, failed to open tar file: @/d.tar, error: Is a directory
$ pack @// @/../a.tar = 0:f= 5:d.tar/ 5:d/ end
TarFile::PackDir, clear end slash of path: @/
# A path and its NUL have 2048 bytes.
$ plant f=
? pack ~2045 @/../a.tar = 0:f= end
$ pack ~2046 @/../a.tar =
TarFile::PackDir, file name too long, path: @/., file: f
$ plant
? pack ~2047 @/../a.tar = end
$ pack ~2048 @/../a.tar = left
TarFile::PackDir, input dir name too long: @/.
TarFile::PackDir, failed check dir: @/.
)");
    EXPECT_FALSE(TarFile(nullptr).PackDir(nullptr, "/data/data/a.tar"));
    EXPECT_FALSE(TarFile(nullptr).PackDir("/data/data", nullptr));
    unlink("/data/data/a.tar");
}

TEST_F(Archives, WhatHappensMeanwhile) {
    expect(R"(
$ plant src/d/ src/d/f=#524298
$ when resize @/src/d/f 600000 at progress
? pack @/src @/a.tar = 0:d/f=#524298 5:d/ end progress 10
$ when resize @/src/d/f 524297 at progress
$ pack @/src @/a.tar =
progress 524288
TarFile::PackDir, failed to read data, size: 75712, real: 9
TarFile::PackDir, failed to read src file: @/src/d/f
TarFile::PackDir, failed to write content of file: @/src/d/f, size: 600000
TarFile::PackDir, failed when pack: @/src/d/f, result: -1
TarFile::PackDir, failed when pack: @/src/d/f, result: -1
$ plant src/d/ src/d/f=1
$ when unlink @/src/d at progress
? pack @/src @/a.tar = 0:d/f=1 5:d/ end progress 1
$ when abort at progress
$ plant src/d/ src/d/f=1
$ pack @/src @/a.tar = 0:d/f=1 5:d/ end
progress 1
TarFile::PackDir, pack task aborted
TarFile::PackDir, pack task aborted
$ plant src/f=#1048577
$ pack @/src @/a.tar =
progress 524288
TarFile::PackDir, pack task aborded in file
TarFile::PackDir, failed to write content of file: @/src/f, size: 1048577
TarFile::PackDir, failed when pack: @/src/f, result: -1
$ resize @/src/f 68719476735
? pack @/src @/a.tar = TarFile::PackDir, failed when pack: @/src/f, result: -1
$ when never
$ resize @/src/f 68719476736
$ pack @/src @/a.tar =
TarFile::PackDir, can't store file '@/src/f' of size: 68719476736
TarFile::PackDir, failed when pack: @/src/f, result: -1
$ plant src/f=#1048577 a.tar>/dev/full
$ pack @/src @/a.tar =
TarFile::PackDir, failed to write data, size: 524288, real: 0, error: No space left on device
TarFile::PackDir, failed to write data of file: @/src/f
TarFile::PackDir, failed to write content of file: @/src/f, size: 1048577
TarFile::PackDir, failed when pack: @/src/f, result: -1
$ plant src/f= a.tar>/dev/full
? pack @/src @/a.tar = TarFile::PackDir, failed to write endup block
)");
}

TEST_F(Archives, HowUnpackingEnds) {
    expect(R"(
$ plant to/
? unpack 0:f=1 end = 0 progress 512
? unpack 0:f=1 end junk#512 = 0 progress 512
? unpack end = 0
? unpack 0:f=1 zeros#512 -:f = -3 isSplit cur size 2048, tarSize 2048
? unpack 0:f{262,_00}= end = 0
? unpack 0:f{8}= end = 0
? unpack 0:f=1 junk#488 = -3 tarfile size should be a multiple of 512 bytes: 1512\n
? unpack = -5 read short than 512 expected, got 0, tarSize 0\n
? unpack 0:f=1 = -5 read short than 512 expected, got 0, tarSize 1024\n
? unpack 0:f=1 zeros#512 = -3 isSplit cur size 1536, tarSize 1536
? unpack 0:f=1 zeros#512 0:f = -3 isSplit cur size 2048, tarSize 2048
? unpack 0:f=1 zeros#512 junk#512 = -3 isSplit cur size 2048, tarSize 2048
? unpack 0:f{257,uStar}= end = -3 isSplit cur size 512, tarSize 1536
? unpack 0:f{9}= end = -3 isSplit cur size 512, tarSize 1536
? unpack junk#512 = -3 isSplit cur size 512, tarSize 512
? unpack 0:f=1 0:a/../../x=1 end = -1 GenRealPath invalid pathName.
? unpack L:a/../x 0:a= end = -1 GenRealPath invalid pathName.
# A path and its NUL have 2048 bytes.
? unpack L:d{/*2020} 5:x end = 0
? unpack L:d{/*2021} 5:x end = -1
? unpack 0:f= 7:a/..= end = 0
? unpack 0:f{124,777777777777}=1 end = -5 read short than 512 expected, got 0, tarSize 2048\n
? unpack x:f{124,777777777777}= end = -5 read short than 512 expected, got 0, tarSize 1536\n
? unpack 7:f{124,_____________}{137,77777777777}{157,777777777777777777777777}{8}= end = -5 read
    short than 512 expected, got 0, tarSize 1536\n
? unpack 0:f{124,_____________}{137,77777777777}{157,777777777777777777777777}{8}= end = -5 read
    short than 512 expected, got 0, tarSize 1536\n
? unpack L:x{124,00000001130}= end = -5 read short than 512 expected, got 0, tarSize 1536\n
$ show @/to = d/[644] f=
$ plant a.tar=odd
? unpack 0:f=1 end = 0 progress 512
)");
    EXPECT_EQ(UnTarFile(nullptr, nullptr).UnPack("/data/data/to", 0), -1);
    EXPECT_EQ(UnTarFile("/data/data/none", nullptr).UnPack("/data/data/to", 0), -1);
    EXPECT_EQ(UnTarFile((*tree / "a.tar").c_str(), nullptr).UnPack(nullptr, 0), -2);
    EXPECT_EQ(UnTarFile((*tree / "a.tar").c_str(), nullptr).UnSplitPack(nullptr, 0), -2);
}

TEST_F(Archives, WhatIsUnpacked) {
    expect(R"(
# Kinds of entries, onto files that are there.
$ plant to/0=old to/1=old to/2=old to/3=old to/8=old to/9=old to/A=old to/g=old to/f= to/x/
$ unpack 0:0=1 1:1=1 2:2>new 3:3=1 8:8=#513 9:9=1 g:g=1 -:null=1 5:d/ 5:e 5:two/levels/ 5:f/ end = 0
progress 512
progress 512
CreateFile:appending this file\n
progress 512
progress 512
$ unpack A:A=1 A:new=1 0:x=1 0:y/one/level= 0:y/one[755]=1 A:z/one[755]= 0:y//g= end = 0
CreateFile:appending this file\n
progress 512
CreateFile:appending this file\n
progress 512
create file fail!skip!
create file fail!skip!
progress 512
CreateFile:appending this file\n
$ show @/to = 0=1 1=old 2>new 3=old 8=#513 9=old1 A=old1 d/[644] e/[644] f= g=old new=1 null=1
    x/[644] y/ y/g= y/one[755]=1 z/ z/one[755]=

# Long names and targets, for the next entry alone.
$ plant to/
$ unpack K:{t*250} L:{n*255} 2:link>short 0:second= L:replaced L:later 0:third= end = 0
$ unpack L:{x*2048} 0:own= K:{x*2048} 2:link>short 2:{n*100}>{y*100} 0:{f*100}= end = 0
$ show @/to = {f*100}0000644= later= link>short {n*100}0000644>{y*100}ustar {n*255}>{t*250} own=
    second=

# Owners are mapped to the application, and modes are those of the header but for set-id bits.
$ plant to/
$ unpack 0:a[0:0,6751]= 0:b[9999:10050,1751]= 0:c[10000:20000,6751]= 0:d[10050:1028,644]= end = 0
$ unpack 5:e[10050:2754,1751] 2:f[10050:10050,644]>x end = 0
$ show @/to = a[751]= b[9999:10050,1751]= c[10123:20123,751]= d[10123:1028,644]= e/[10123:2827,1751]
    f[10123:10123,777]>x

# What an application patched itself. A directory of that name gets its mode, but by a long name.
$ plant to/com.tencent.mm/tinker/[700]
? unpack 5:com.tencent.mm/tinkerX/ 5:com.tencent.mm/[755] 0:com.tencent.mm/tinker/f=1 end = 0 create
    file fail!skip!
? unpack L:com.tencent.mm/tinker/ 5:x[755] end = 0 UnTarFile::filterDir ignore tinker dir:
    @/to/com.tencent.mm/tinker/
$ show @/to = com.tencent.mm/ com.tencent.mm/tinker/[700] com.tencent.mm/tinkerX/[644]
? unpack 5:com.tencent.mm/tinker/[755] end = 0 UnTarFile::filterDir ignore tinker dir:
    @/to/com.tencent.mm/tinker/
$ show @/to = com.tencent.mm/ com.tencent.mm/tinker/ com.tencent.mm/tinkerX/[644]

# Files that cannot be written whole are left out, and an abort takes the partial file away.
$ plant to/d/ to/full>/dev/full
$ unpack 0:d=1 0:full=#524288 0:next=#60000 end = 0
create file fail!skip!
write file content shorter than expect!\n
progress 512
$ show @/to = d/[644] next=#60000
$ plant to/
$ when abort at progress
$ unpack 0:empty= 0:cut=#1048577 0:later= end = 0
progress 512
$ show @/to = empty=

# A listing changes nothing, and has the regular files.
$ list 5:d/ 0:d/a=1 2:l>x L:{n*120} 8:cut=#600 0:b= end = d/a {n*120} b
$ show @/to = empty=
)");
}

// A file's header promises what is left of the slice of 1048576 bytes, in chunks of 524288 and with
// odd rounding. The first number is the length of the names.
TEST_F(Archives, WhereFilesAreCut) {
    expect(R"(
? cut 1 1047040 = 0:1047040 | s.0|1048576\n
? cut 1 1047551 = 0:1047551 | s.0|1049088\n
? cut 1 1047552 = 8:1047552 | s.0|1049088\n
? cut 1 1048064 = 8:1048064 | end | s.0|1049600\n
? cut 1 1048065 = 8:1048065 | end | s.0|1050112\n
? cut 1 1048577 = 8:1048576 | A:1 | s.0|1050112\ns.1|2048\n
? cut 1 2097152 = 8:1048576 | A:1048576 | end | s.0|1050112\ns.1|1050112\n
? cut 1 3145217 = 8:1048576 | 9:1048576 | A:1048065 | end | s.0|1050112\ns.1|1050112\ns.2|1050112\n
? cut 1 3145733 = 8:1048576 | 9:1048576 | 9:1048576 | A:5 |
    s.0|1050112\ns.1|1050112\ns.2|1050112\ns.3|2048\n
? cut 1 512 1048576 = 0:512 8:1048576 | end | s.0|1051136\n
? cut 1 523776 1048576 = 0:523776 8:524288 | A:524288 | s.0|1050112\ns.1|525824\n
? cut 1 523264 1048576 = 0:523264 8:524288 | A:524288 | s.0|1049600\ns.1|525824\n
? cut 1 522752 1048576 = 0:522752 8:1048576 | end | s.0|1573376\n
? cut 1 1047040 1000 = 0:1047040 0:1000 | end | s.0|1050112\n
? cut 1 1047552 1048576 = 8:1047552 8:524288 | A:524288 | s.0|1573888\ns.1|525824\n
? cut 1 1047552 0 10 = 8:1047552 0:0 0:10 | end | s.0|1050624\n
? cut 1 1047552 0 0 9 = 8:1047552 0:0 0:0 8:0 | end | s.0|1051136\n
? cut 1 1048576 0 = 8:1048576 | end | s.0|1050112\n
? cut 72 1048064 = 8:1048064 | end | s.0|1049600\n
? cut 73 1048064 = 8:1048576 | end | s.0|1049600\n
)");
}

TEST_F(Archives, SlicesOneByOne) {
    expect(R"(
$ plant src/ src/d/ src/d/f=#1048577 out/
$ split 1 = true
progress 524288
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
progress 524288
progress 1
label @/out/s.1 info 10123 0
slice @/out/s.1|end
label @/out/s.txt info 10123 0
$ show @/out = s.0+=#1050624 s.1+=#2048 s.txt+=#21
# Headers of directories and links end a slice too, which may be none.
$ plant src/a/l>x out/
$ split 0 = true
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
label @/out/s.1 info 10123 0
slice @/out/s.1
wait
slice end
label @/out/s.txt info 10123 0
$ show @/out = s.0+=#1536 s.1+=#1536 s.txt+=#18
# A directory that becomes a link while the client has its slice is not followed.
$ plant out/ src/d/ outside/secret=
$ when link @/src/d @/outside at wait
? split 0 = TarFile::PackDir, failed when pack: @/src/d, result: -1
# A negative size ends with an abort alone; slices that were handed over stay.
$ plant src/f=#524289 out/
$ when abort at slice @/out/s.3
? split 2048 = TarFile::PackDir, failed when pack: @/src/f, result: -1
$ show @/out = s.0+=#525824 s.1+=#1536 s.2+=#1536 s.3+=#1536
# An abort in a file, between slices, and a file that goes or changes meanwhile.
$ plant src/f=#1572864 out/
$ when abort at progress
$ split 2 =
progress 524288
TarFile::PackDir, pack task aborded in file
TarFile::PackDir, failed to write content of file: @/src/f, size: 1572864
TarFile::PackDir, failed when pack: @/src/f, result: -1
TarFile::clearDirtyData, failed to access file: @/out/s.0, error: No such file or directory\n
$ when abort at wait
$ split 1 =
progress 524288
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
TarFile::PackSplitDir, pack task aborded in file
TarFile::PackDir, failed to write data of file: @/src/f
TarFile::PackDir, failed to write content of file: @/src/f, size: 1572864
TarFile::PackDir, failed when pack: @/src/f, result: -1
$ show @/out = s.0+=#1050112
$ when unlink @/src/f at wait
? split 1 = TarFile::PackDir, failed when pack: @/src/f, result: -1
$ plant src/f=#1572864 out/
$ when link @/src/f @/out at wait
? split 1 = TarFile::PackDir, failed when pack: @/src/f, result: -1
$ show @/out = s.0+=#1050112
# What cannot be written, labelled or opened.
$ when never
$ plant src/f=#1048586 out/s.1>/dev/full
? split 1 = TarFile::PackDir, failed to write endup block\n
$ show @/out = s.0+=#1050112
$ plant src/f=1 out/
$ refuse @/out/s.txt
? split 100 = TarFile::FixAttrForSeLinux failed, restorecon_backup_dir @/out/s.txt error!
$ refuse @/out/s.0
? split 100 = TarFile::FillSplitTailBlocks:restorecon_backup_dir @/out/s.0 error!
$ show @/out = s.txt+=#9
$ plant src/ out/s.0/
? split 1 = TarFile::CreateSplitFile, failed to open tar file: @/out/s.0, error: Is a directory
$ plant src=
? split 1 = TarFile::PackSplitDir, failed check dir: @/src\n
)");
    const std::string words[TarFile::kSplitArguments];
    EXPECT_FALSE(TarFile(this).PackSplitDir(tree->path(), *tree / "s", words, 0))
        << "for one whole";
}

// MiB, in 32 bits.
TEST_F(Archives, SliceSizes) {
    const std::pair<const char*, long> rows[] = {
        {"1", 1},          {"0x63", 99}, {"0x64", 100}, {"128MiB", 128},
        {"2048", -2048},   {"4095", -1}, {"4096", 0},   {"-1", -1},
        {"0x80000001", 1}, {"many", 0},  {"0b11", 0}};
    const android::host::LogCapture log;
    for (const auto& [mib, size] : rows) {
        const std::string words[TarFile::kSplitArguments] = {"", "", "", "", mib};
        EXPECT_EQ(PackSplitPre("x", words, 0).size, size * (1L << 20)) << mib;
    }
    EXPECT_EQ(linesOf(log, ANDROID_LOG_DEBUG).size(), 6U) << "of a size below 100";
    EXPECT_EQ(PackSplitPre("x/", std::vector<std::string>(7).data(), 0).basePath, "x");
}

TEST_F(Archives, SetsOfSlices) {
    expect(R"(
# All lines are checked first, then each slice unpacked beside the destination and removed.
$ plant to/ out/
$ archive @/out/s.0 0:f=1 end
$ archive @/out/s.1 0:f=2 end
$ restore s.0|2047; = -1
the size of the tar file @/out/s.0 is not equal to the size in the check file\n
size is 2047, st_size is 2048\n
handleCheckFile:s.0|2047\n  tarBaseName:@/out/s.txt failed
UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore s.0| = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore s.0 = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore ; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
$ restore s.1|2048;s.2|2048; = -1
slice tar file @/out/s.2 don't exist, error:No such file or directory
handleCheckFile:s.2|2048\n  tarBaseName:@/out/s.txt failed
UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 1 failed!
? restore s|s.0|2048; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore s.1|2048;{x*2046}|2048; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 1
    failed!
$ show @ = out/ out/s.0=#2048 out/s.1=#2048 out/s.txt=#2061 to/
$ restore s.0|0x800{_*2037}s.1|_04000_bytes = 0
progress 512
progress 512
$ show @ = out/ out/s.txt=#2062 to/ to/f=2
? restore '' = 0

# A slice may end where a whole archive may not.
$ archive @/out/s.0 0:a=1 zeros#512
? restore s.0|1536 = 0 isSplit cur size 1536, tarSize 1536
$ archive @/out/s.0 0:b=1
? restore s.0|1024 = 0 read short than 512 expected, got 0, tarSize 1024\n
$ archive @/out/s.0
? restore s.0|0 = 0 read short than 512 expected, got 0, tarSize 0\n
$ archive @/out/s.0 zeros#512 0:c=
? restore s.0|1024 = 0 isSplit cur size 1024, tarSize 1024
$ archive @/out/s.0 1:d{124,00002000000}=
? restore s.0|512 = 0 read short than 512 expected, got 0, tarSize 512\n
$ archive @/out/s.0 1:d{124,00002000001}=
? restore s.0|512 = -5 UnTarFile::UnSplitPack, untar split @/out/s.0 failed!
$ show @ = out/ out/s.0=#512 out/s.txt=s.0|512 to/ to/a=1 to/b=1 to/f=2

# A restore stops at a slice that fails, and an abort counts as done.
$ plant to/ out/
$ archive @/out/s.0 0:f=1 end
$ archive @/out/s.1 0:f=2 junk#512
$ archive @/out/s.2 end
$ restore s.0|2048;s.1|1536;s.2|1024; = -3
progress 512
progress 512
Invalid tar format.\n
isSplit cur size 1536, tarSize 1536
UnTarFile::UnSplitPack, untar split @/out/s.1 failed!
$ show @ = out/ out/s.1=#1536 out/s.2=#1024 out/s.txt=#27 to/ to/f=2
$ when abort at progress
$ archive @/out/s.1 0:empty= 0:f=2 0:g= end
$ restore s.1|3072;s.2|1024; = 0
progress 512
$ show @ = out/ out/s.txt=#18 to/ to/empty= to/f=2 to/g=
)");
    EXPECT_EQ(UdtoString(4294967295U), "4294967295");
    EXPECT_EQ(HandleSplitInfo("/backup/app.tar", 1049600, 0), "app.tar.0|1049600\n");
    EXPECT_EQ(HandleSplitInfo("app", ~0ULL, 12), "app.12|18446744073709551615\n");
    EXPECT_EQ(HandleSplitInfo("/backup/app.tar", 0, 0), "");
}

// Each alone on the heap, so that a read behind it shows.
TEST(ParseOctalStr, ReadsDigitsWhereverTheyBeginAndSkipsWhatIsNone) {
    constexpr size_t kMode = 100;
    const struct {
        char fill;
        size_t offset;
        std::string text;
        uint64_t value;
    } rows[] = {
        {'x', kMode, "0000755\0"s, 0755},
        {'x', kMode, "000755 7", 0755},
        {'5', kMode, "76543210", 076543210},
        {'x', kMode, "1284", 012},
        {'x', kMode, "12/4", 012},
        {'x', kMode, "12\xb4\x34", 012},
        {'7', kMode, "    ", 07777},
        {'x', kMode, "8-917 ", 017},
        {'x', kMode, "\xb1\xff\x31\x37 ", 017},
        {'7', kMode, "       ", 07},
        {'7', kMode, "        ", 0},
        {'1', 480, "         ", 01111111111111111111111},
        {'7', 480, "         ", ~0ULL},
        {'7', 504, "", 077777777},
        {' ', 511, "7", 07},
        {' ', kMode, std::string(411, ' ') + "7", 07},
        {'\0', kMode, "", 0},
        {' ', 511, "", 0},
        {'\0', kMode, "         123456701234", 0123456701234},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fill + row.text);
        const auto block = std::make_unique<TarBlock>();
        memset(&block->header, row.fill, sizeof(block->header));
        memcpy(reinterpret_cast<char*>(&block->header) + row.offset, row.text.data(),
               row.text.size());
        EXPECT_EQ(ParseOctalStr(block->bytes() + row.offset, 8), row.value);
    }
    EXPECT_EQ(checksumOf(TarBlock().header), 8U * ' ');
}

TEST_F(Archives, LinksThatChangeBetweenTwoLooks) {
    TarStream stream;
    const std::string root = tree->path();
    EntryHeaders headers(stream, root);
    plant(root, {"l>xyz"});
    for (const off_t size : {off_t{2}, off_t{3}, off_t{0xFFFFFFFF}}) {
        struct stat status = {};
        status.st_size = size;
        tar_header header = {};
        EXPECT_EQ(headers.fillLink(Place((root + "/l").c_str()), status, header), size == 3);
        EXPECT_FALSE(headers.fillLink(Place((root + "/none").c_str()), status, header));
    }
}

// The padding is counted in 32 bits with a sign.
TEST_F(Archives, PaddingOfLargeFiles) {
    TarStream stream;
    ASSERT_TRUE(stream.open((*tree / "f").c_str()));
    for (const auto& [size, padding] : {std::pair(0x80000001L, 0), std::pair(0x100000001L, 511)}) {
        const long before = stream.fileBytes();
        EXPECT_TRUE(stream.completeContent(size));
        EXPECT_EQ(stream.fileBytes() - before, padding);
    }
}

}  // namespace
}  // namespace peltex_test
