// The folder tar/: packing and unpacking, whole and in slices.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include "tar/check_file.h"
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
            isAborted = false;
            const std::string to = words.size() > 1 ? words[1] : *tree / "a.tar";
            const bool isHeard = words.size() < 3;
            const bool result =
                TarFile(isHeard ? this : nullptr).PackDir(words.at(0).c_str(), to.c_str());
            if (result) {
                hear(packedIn(readFile(to)));
            }
            return result ? "= true" : exists(to) ? "= false, and it is there" : "= false";
        };
        commands["resize"] = [](const Lines& words) {
            std::filesystem::resize_file(words.at(0), std::stoul(words.at(1)));
            return "";
        };
        commands["cut"] = [this](const Lines& words) { return cut(words); };
        commands["unpack"] = [this](const Lines& words) { return unpack("10123", words); };
        commands["unpackFor"] = [this](const Lines& words) {
            return unpack(words.at(0), {words.begin() + 1, words.end()});
        };
        commands["list"] = [this](const Lines& words) {
            writeFile(*tree / "a.tar", archiveOf(words));
            UnTarFile archive((*tree / "a.tar").c_str(), nullptr);
            archive.GetFileNames();
            for (const std::string& name : archive.GetFileNames()) {
                hear(name);
            }
            return "";
        };
        commands["archive"] = [this](const Lines& words) {
            writeFile(words.at(0), archiveOf({words.begin() + 1, words.end()}));
            return "";
        };
        // Slices of so many MiB, to @/out.
        commands["split"] = [this](const Lines& words) {
            isAborted = false;
            return packSlices(words.at(0)) ? "= true" : "= false";
        };
        commands["restore"] = [this](const Lines& words) {
            isAborted = false;
            std::string list;
            for (std::string word : words) {
                std::replace(word.begin(), word.end(), '_', ' ');
                std::replace(word.begin(), word.end(), ';', '\n');
                list += word;
            }
            writeFile(*tree / "out/s.txt", list);
            UnTarFile set((*tree / "out/s.txt").c_str(), this);
            return "= " + std::to_string(set.UnSplitPack((*tree / "to/x").c_str(), 10123));
        };
    }

    std::string unpack(const std::string& uid, const Lines& words) {
        isAborted = false;
        writeFile(*tree / "a.tar", archiveOf(words));
        UnTarFile archive((*tree / "a.tar").c_str(), this);
        return "= " + std::to_string(archive.UnPack((*tree / "to").c_str(),
                                                    static_cast<uint32_t>(std::stoul(uid))));
    }
    // Packs files of these sizes ("2S-1": S a slice, C a chunk of content) in slices of 1 MiB.
    // Returns types and sizes in each slice, with what it has more than they say, and a last one
    // that went.
    std::string cut(const Lines& words) {
        commands["plant"]({"src/", "out/"});
        const size_t nameLength = words[0][0] == 'n' ? std::stoul(words[0].substr(1)) : 1;
        Lines sizes(words.begin() + (words[0][0] == 'n' ? 1 : 0), words.end());
        for (size_t i = 0; i < sizes.size(); ++i) {
            writeFile(*tree / "src/" + std::string(nameLength - 1, 'n') + std::to_string(i), "");
        }
        size_t next = 0;  // in the order of the walk
        for (const auto& file : std::filesystem::directory_iterator(*tree / "src")) {
            const std::string& size = sizes[next++];
            const size_t unit = size.find_first_of("SC");
            const long base = unit == size.npos ? 0 : size[unit] == 'S' ? 1 << 20 : 1 << 19;
            const long count = unit == 0 ? 1 : std::stol(size);
            const std::string more = unit == size.npos ? "" : size.substr(unit + 1);
            std::filesystem::resize_file(
                file, static_cast<size_t>(
                          unit == size.npos ? count
                                            : count * base + (more.empty() ? 0 : std::stol(more))));
        }
        packSlices("1");
        std::string result = "=";
        std::string listed;
        for (size_t number = 0; exists(*tree / ("out/s." + std::to_string(number))); ++number) {
            const std::string slice = readFile(*tree / ("out/s." + std::to_string(number)));
            size_t promised = kEndBlocks.size();
            for (const std::string& header : headersOf(slice)) {
                const std::string size = header.substr(header.rfind(' ') + 1);
                result += std::string(" ") + header[0] + ":" + size;
                promised += kBlock + (std::stoul(size) + kBlock - 1) / kBlock * kBlock;
            }
            const long difference = static_cast<long>(slice.size()) - static_cast<long>(promised);
            result += (difference == 0 ? "" : " more:" + std::to_string(difference)) + " |";
            listed += "s." + std::to_string(number) + "|" + std::to_string(slice.size()) + "\n";
        }
        EXPECT_EQ(readFile(*tree / "out/s.txt"), listed);
        result += std::count(events.begin(), events.end(), "slice end") == 1 ? " end" : "";
        events.clear();
        return result;
    }
    bool packSlices(const std::string& mib, const std::string& source = "src") {
        const std::string words[TarFile::kSplitArguments] = {"", "", "", "", mib, "info", "10123"};
        return TarFile(this, 1).PackSplitDir(*tree / source, *tree / "out/s", words, 10123);
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
$ pack @/src @/a.tar unheard
0:0= 0:1=#511 0:2=#512 0:3=#513 0:4=#524289 0:98= 0:f[10050:1028,7751]{1234567890}=hello
    0:i1[2097151:2097152,644]{8589934591}=
    0:i2,0000644,77777777,0000000,00000000000,100000000000,16777215,16777216
    0:i3,0000644,0000000,77777776,00000000000,777777777777,-2147483648,-2 0:i4{8}=
    0:i5{68719476735}= 0:{n*99}= 2:l1>{t*99} 2:l>../x 5:d/[1:2,1777] 5:{p*98}/ K:{t*100} 2:l2>{t*99}
    K:{t*101} L:{r*100} 2:{r*99}>{t*99} K:{t*250} 2:l3>{t*99} L:{m*100} 0:{m*99}= L:{o*255}
    0:{o*99}= L:{q*99}/ 5:{q*99} end
= true
)");
}

TEST_F(Archives, WhatIsLeftOutOfThem) {
    expect(R"(
$ plant x.dex= .dex= d.dex/ l.dex>y x.dexx= x.Dex= dex= com.tencent.mm/ com.tencent.mm/tinkerX/
$ plant+ d/ one= d/two&one s! p| l>y d/l2&l
? pack @ @/../a.tar unheard = true 0:dex= 0:x.Dex= 0:x.dexx= 2:l.dex>y 5:com.tencent.mm/
    5:com.tencent.mm/tinkerX/ 5:d.dex/ 5:d/ end
$ plant com.tencent.mm/ com.tencent.mm/tinker/f=
$ pack @ @/../a.tar
TarFile::PackDir, ignore tinker dir [@/com.tencent.mm/tinker]
TarFile::PackDir, filter file: @/com.tencent.mm/tinker
5:com.tencent.mm/ end
= true
$ plant com.tencent.mm/ com.tencent.mm/tinker>y
? pack @ @/../a.tar = true 2:com.tencent.mm/tinker>y 5:com.tencent.mm/ end
$ plant x.dex=
? pack @ @/../a.tar = true end
$ plant l>y l2&l
? pack @ @/../a.tar = true end
$ plant p|
$ pack @ @/../a.tar
TarFile::PackDir, skip not supported file: @/p, mode: 10000
end
= true
$ plant
$ pack @
TarFile::PackDir, ignore current tar file
TarFile::PackDir, filter file: @/a.tar
end
= true
)");
    unlink("/data/data/a.tar");
}

TEST_F(Archives, SourcesAndTargets) {
    expect(R"(
$ plant f= d/ d.tar/
$ pack ''
TarFile::PackDir, invalid input dir name
TarFile::PackDir, failed check dir: 
= false
$ pack /
TarFile::PackDir, clear end slash of path: 
TarFile::PackDir, failed to get stat of src dir: , error: No such file or directory
TarFile::PackDir, failed check dir: /
= false
$ pack @/no
TarFile::PackDir, failed to get stat of src dir: @/no, error: No such file or directory
TarFile::PackDir, failed check dir: @/no
= false
$ pack @/f
TarFile::PackDir, src dir is not directory: @/f
TarFile::PackDir, failed check dir: @/f
= false
? pack @/d @/no/a.tar = false TarFile::PackDir, failed to open tar file: @/no/a.tar, error: No such
    file or directory
? pack @/d @/d.tar = false, and it is there TarFile::PackDir, failed to open tar file: @/d.tar,
    error: Is a directory
$ pack @// @/../a.tar
TarFile::PackDir, clear end slash of path: @/
0:f= 5:d.tar/ 5:d/ end
= true
# A path and its NUL have 2048 bytes.
$ plant f=
? pack ~2045 @/../a.tar = true 0:f= end
$ pack ~2046 @/../a.tar
TarFile::PackDir, file name too long, path: @/., file: f
= false
$ plant
? pack ~2047 @/../a.tar = true end
$ pack ~2048 @/../a.tar
TarFile::PackDir, input dir name too long: @/.
TarFile::PackDir, failed check dir: @/.
= false, and it is there
)");
    EXPECT_FALSE(TarFile(nullptr).PackDir(nullptr, "/data/data/a.tar"));
    EXPECT_FALSE(TarFile(nullptr).PackDir("/data/data", nullptr));
    unlink("/data/data/a.tar");
}

TEST_F(Archives, WhatHappensMeanwhile) {
    expect(R"(
$ plant src/d/ src/d/f=#524298
$ when resize @/src/d/f 600000 at progress
$ pack @/src
progress 524288
progress 10
0:d/f=#524298 5:d/ end
= true
$ when resize @/src/d/f 524297 at progress
$ pack @/src
progress 524288
TarFile::PackDir, failed to read data, size: 75712, real: 9
TarFile::PackDir, failed to read src file: @/src/d/f
TarFile::PackDir, failed to write content of file: @/src/d/f, size: 600000
TarFile::PackDir, failed when pack: @/src/d/f, result: -1
TarFile::PackDir, failed when pack: @/src/d/f, result: -1
= false
$ plant src/d/ src/d/f=1
$ when unlink @/src/d at progress
? pack @/src = true 0:d/f=1 5:d/ end
$ when abort at progress
$ plant src/d/ src/d/f=1
$ pack @/src
progress 1
TarFile::PackDir, pack task aborted
TarFile::PackDir, pack task aborted
0:d/f=1 5:d/ end
= true
$ plant src/f=#1048577
$ pack @/src
progress 524288
TarFile::PackDir, pack task aborded in file
TarFile::PackDir, failed to write content of file: @/src/f, size: 1048577
TarFile::PackDir, failed when pack: @/src/f, result: -1
= false
$ resize @/src/f 68719476735
? pack @/src = false TarFile::PackDir, failed when pack: @/src/f, result: -1
$ when nothing
$ resize @/src/f 68719476736
$ pack @/src
TarFile::PackDir, can't store file '@/src/f' of size: 68719476736
TarFile::PackDir, failed when pack: @/src/f, result: -1
= false
$ plant src/f=#1048577 a.tar>/dev/full
$ pack @/src
TarFile::PackDir, failed to write data, size: 524288, real: 0, error: No space left on device
TarFile::PackDir, failed to write data of file: @/src/f
TarFile::PackDir, failed to write content of file: @/src/f, size: 1048577
TarFile::PackDir, failed when pack: @/src/f, result: -1
= false
$ plant src/d/ src/d/f= a.tar>/dev/full
$ pack @/src
TarFile::PackDir, failed to write endup block
= false
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
? unpack 0:f{sum8}= end = 0
? unpack 0:f=1 junk#488 = -3 tarfile size should be a multiple of 512 bytes: 1512\n
? unpack = -5 read short than 512 expected, got 0, tarSize 0\n
? unpack 0:f=1 = -5 read short than 512 expected, got 0, tarSize 1024\n
? unpack 0:f=1 zeros#512 = -3 isSplit cur size 1536, tarSize 1536
? unpack 0:f=1 zeros#512 0:f = -3 isSplit cur size 2048, tarSize 2048
? unpack 0:f=1 zeros#512 junk#512 = -3 isSplit cur size 2048, tarSize 2048
? unpack 0:f{257,uStar}= end = -3 isSplit cur size 512, tarSize 1536
? unpack 0:f{148,0000000}= end = 0
? unpack junk#512 = -3 isSplit cur size 512, tarSize 512
? unpack 0:f=1 0:a/../../x=1 end = -1 GenRealPath invalid pathName.
? unpack L:a/../x 0:a= end = -1 GenRealPath invalid pathName.
? unpack 0:f= 7:a/..= end = 0
? unpack 0:f{124,777777777777}=1 end = -5 read short than 512 expected, got 0, tarSize 2048\n
? unpack x:f{124,777777777777}= end = -5 read short than 512 expected, got 0, tarSize 1536\n
? unpack 7:f{124,____________}{136,777777777777}{157,777777777777777777777777}{sum8}= end = 0
? unpack 0:f{124,____________}{136,777777777777}{157,777777777777777777777777}{sum8}= end = 0
? unpack L:x{124,00000001130}= end = 0
$ show @/to
= f=
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
$ plant to/0=before to/1=before to/2=before to/3=before to/8=before to/9=before to/A=before to/g=before
$ unpack 0:0=1 1:1=1 2:2>new 3:3=1 8:8=#513 9:9=1 A:A=1 g:g=1 -:null=1 A:new=1 5:d/ 5:e 5:two/levels/ end
progress 512
progress 512
CreateFile:appending this file\n
progress 512
CreateFile:appending this file\n
progress 512
progress 512
CreateFile:appending this file\n
progress 512
= 0
$ show @/to
= 0=1 1=before 2>new 3=before 8=#513 9=before1 A=before1 d/[644] e/[644] g=before new=1 null=1
$ plant to/f= to/x/
$ unpack 5:f/ 0:x=1 0:d/one/level=1 0[755]:d/one=1 0:e/one[755]=1 A:g/one[755]=1 0:p{345,prefix}= end
create file fail!skip!
create file fail!skip!
progress 512
CreateFile:appending this file\n
progress 512
= 0
$ show @/to
= e/ e/one[755]=1 f= g/ g/one[755]=1 p= x/[644]
$ unpack 0:h/f[755]=1 0:h//g= end
progress 512
= 0
$ show @/to
= e/ e/one[755]=1 f= g/ g/one[755]=1 h/ h/f[755]=1 h/g= p= x/[644]

# Long names and targets, for the next entry alone.
$ plant to/
$ unpack K:{t*250} L:{n*255} 2:link>short 0:second=2 L:replaced L:later 0:third= L:{x*2048} 0:own= end
progress 512
= 0
$ show @/to
= later= {n*255}>{t*250} own= second=2
$ unpack K:{x*2048} 2:link>short 2:{n*100}>{y*100} 0:{f*100}= end
= 0
$ show @/to
= {f*100}0000644= later= link>short {n*100}0000644>{y*100}ustar {n*255}>{t*250} own= second=2

# Owners are mapped to the application, and modes are those of the header but for set-id bits.
$ plant to/
$ unpack 0:a[0:0,6751]= 0:b[9999:10050,1751]= 0:c[10000:20000,6751]= 0:d[10050:1028,644]= 5:e[10050:2754,1751] end
= 0
$ unpack 2:f[10050:10050,644]>x end
= 0
$ show @/to
= a[751]= b[9999:10050,1751]= c[10123:20123,751]= d[10123:1028,644]= e/[10123:2827,1751]
    f[10123:10123,777]>x
$ unpackFor 0 0:a[10050:10051,1751]= 5:e[0:0,1751] end
= 0
$ show @/to
= a[10050:10051,1751]= b[9999:10050,1751]= c[10123:20123,751]= d[10123:1028,644]= e/[1751]
    f[10123:10123,777]>x

# What an application patched itself; a directory of that name gets its mode, unless a long name led to it.
$ plant to/com.tencent.mm/tinker/[700]
$ unpack 5:com.tencent.mm/[755] 0:com.tencent.mm/tinker/f=1 L:com.tencent.mm/tinker/ 5:x[755] 5:com.tencent.mm/tinkerX/ end
UnTarFile::filterDir ignore tinker dir: @/to/com.tencent.mm/tinker/f
create file fail!skip!
UnTarFile::filterDir ignore tinker dir: @/to/com.tencent.mm/tinker/
= 0
$ show @/to
= com.tencent.mm/ com.tencent.mm/tinker/[700] com.tencent.mm/tinkerX/[644]
$ unpack 5:com.tencent.mm/tinker/[755] end
UnTarFile::filterDir ignore tinker dir: @/to/com.tencent.mm/tinker/
= 0
$ show @/to
= com.tencent.mm/ com.tencent.mm/tinker/ com.tencent.mm/tinkerX/[644]

# Files that cannot be written whole are left out, and an abort takes the partial file away.
$ plant to/d/ to/full>/dev/full
$ unpack 0:d=1 0:full=#524288 0:next=1 end
create file fail!skip!
write file content shorter than expect!\n
progress 512
= 0
$ show @/to
= d/[644] next=1
$ plant to/
$ when abort at progress
$ unpack 0:empty= 0:cut=#1048577 0:later= end
progress 512
= 0
$ show @/to
= empty=

# A listing changes nothing, and has the regular files.
$ list 5:d/ 0:d/a=1 2:l>x L:{n*120} 8:cut=#600 0:b= end
d/a
{n*120}
b
$ show @/to
= empty=
)");
}

// A file's header promises what is left of the slice, in chunks of 512 KiB and with odd rounding.
TEST_F(Archives, WhereFilesAreCut) {
    expect(R"(
? cut S-1536 = 0:1047040 |
? cut S-1025 = 0:1047551 |
? cut S-1024 = 8:1047552 |
? cut S-512 = 8:1048064 | end
? cut S-511 = 8:1048065 | end
? cut S = 8:1048576 | end
? cut S+1 = 8:1048576 | A:1 |
? cut 2S = 8:1048576 | A:1048576 | end
? cut 3S-511 = 8:1048576 | 9:1048576 | A:1048065 | end
? cut 3S+5 = 8:1048576 | 9:1048576 | 9:1048576 | A:5 |
? cut 512 S = 0:512 8:1048576 | end
? cut C-512 S = 0:523776 8:524288 | A:524288 |
? cut C-1024 S = 0:523264 8:524288 | A:524288 |
? cut C-1536 S = 0:522752 8:1048576 | end
? cut S-1536 1000 = 0:1047040 0:1000 | end
? cut S-1024 S = 8:1047552 8:524288 | A:524288 |
? cut S-1024 0 10 = 8:1047552 0:0 0:10 | end
? cut S-1024 0 0 9 = 8:1047552 0:0 0:0 8:0 more:512 | end
? cut S 0 = 8:1048576 | end
? cut n72 S-512 = 8:1048064 | end
? cut n73 S-512 = 8:1048576 more:-512 | end
)");
}

TEST_F(Archives, SlicesOneByOne) {
    expect(R"(
$ plant src/ src/d/ src/d/f=#1048577 out/
$ split 1
progress 524288
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
progress 524288
progress 1
label @/out/s.1 info 10123 0
slice @/out/s.1|end
label @/out/s.txt info 10123 0
= true
$ show @/out
= s.0+=#1050624 s.1+=#2048 s.txt+=#21
# Headers of directories and links end a slice too, which may be none.
$ plant src/a/l>x out/
$ split 0
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
label @/out/s.1 info 10123 0
slice @/out/s.1
wait
slice end
label @/out/s.txt info 10123 0
= true
$ show @/out
= s.0+=#1536 s.1+=#1536 s.txt+=#18
# A directory that becomes a link while the client has its slice is not followed.
$ plant out/ src/d/ outside/secret=
$ when link @/src/d @/outside at wait
$ split 0
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
TarFile::PackDir, failed to open dir: @/src/d, err: Not a directory
TarFile::PackDir, failed when pack: @/src/d, result: -1
= false
$ when nothing
# A negative size ends with an abort alone; slices that were handed over stay.
$ plant src/f=#524289 out/
$ when abort at slice @/out/s.3
? split 2048 = false TarFile::PackDir, failed when pack: @/src/f, result: -1
$ show @/out
= s.0+=#525824 s.1+=#1536 s.2+=#1536 s.3+=#1536
# An abort in a file, between slices, and a file that goes or changes meanwhile.
$ plant src/f=#1572864 out/
$ when abort at progress
$ split 2
progress 524288
TarFile::PackDir, pack task aborded in file
TarFile::PackDir, failed to write content of file: @/src/f, size: 1572864
TarFile::PackDir, failed when pack: @/src/f, result: -1
TarFile::clearDirtyData, failed to access file: @/out/s.0, error: No such file or directory\n
= false
$ when abort at wait
$ split 1
progress 524288
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
TarFile::PackSplitDir, pack task aborded in file
TarFile::PackDir, failed to write data of file: @/src/f
TarFile::PackDir, failed to write content of file: @/src/f, size: 1572864
TarFile::PackDir, failed when pack: @/src/f, result: -1
= false
$ when unlink @/src/f at wait
? split 1 = false TarFile::PackDir, failed when pack: @/src/f, result: -1
$ plant src/f=#1572864 out/
$ when link @/src/f @/out at wait
$ split 1
progress 524288
label @/out/s.0 info 10123 0
slice @/out/s.0
wait
TarFile::FillSplitHeaderBlocks @/src/f is no file any more!
TarFile::PackSplitDir head blocks failed!\n
TarFile::PackDir, failed to write data of file: @/src/f
TarFile::PackDir, failed to write content of file: @/src/f, size: 1572864
TarFile::PackDir, failed when pack: @/src/f, result: -1
= false
$ show @/out
= s.0+=#1050112
# What cannot be written, labelled or opened.
$ when nothing
$ plant src/f=#1048586 out/s.1>/dev/full
? split 1 = false TarFile::PackDir, failed to write endup block\n
$ show @/out
= s.0+=#1050112
$ plant src/f=1 out/
$ refuse @/out/s.txt
? split 100 = false TarFile::FixAttrForSeLinux failed, restorecon_backup_dir @/out/s.txt error!
$ refuse @/out/s.0
? split 100 = false TarFile::FillSplitTailBlocks:restorecon_backup_dir @/out/s.0 error!
$ show @/out
= s.txt+=#9
$ plant src/ out/s.0/
? split 1 = false TarFile::CreateSplitFile, failed to open tar file: @/out/s.0, error: Is a
    directory
$ plant src=
? split 1 = false TarFile::PackSplitDir, failed check dir: @/src\n
)");
    const std::string words[TarFile::kSplitArguments];
    EXPECT_FALSE(TarFile(this).PackSplitDir(tree->path(), *tree / "s", words, 0)) << "made for one";
}

// MiB, in 32 bits.
TEST_F(Archives, SliceSizes) {
    const android::host::LogCapture log;
    const std::pair<const char*, long> rows[] = {
        {"1", 1},     {"0x63", 99}, {"0x64", 100}, {"128MiB", 128},   {"2048", -2048},
        {"4095", -1}, {"4096", 0},  {"-1", -1},    {"0x80000001", 1}, {"many", 0}};
    Lines expected;
    std::string small;
    plant(tree->path(), {"src/", "out/"});
    for (const auto& [mib, size] : rows) {
        EXPECT_TRUE(packSlices(mib));
        expected.push_back(*tree / "out/s.0" + ", 1024, " + std::to_string(size << 20) + "]");
    }
    Lines told;
    for (const std::string& line : messagesOf(log, ANDROID_LOG_DEBUG)) {
        if (line.find("split tar [name, size, m_slice] = [") != line.npos) {
            told.push_back(line.substr(line.rfind('[') + 1));
        } else if (line.find("sliceSize need to be") != line.npos) {
            small += line.substr(line.find('('));
        }
    }
    EXPECT_EQ(told, expected);
    EXPECT_EQ(small, "(1 given) \n(99 given) \n(-1 given) \n(-2147483647 given) \n(0 given) \n");
}

TEST_F(Archives, SetsOfSlices) {
    expect(R"(
# All lines are checked first, then each slice unpacked beside the destination and removed.
$ plant to/ out/
$ archive @/out/s.0 0:f=1 end
$ archive @/out/s.1 0:f=2 end
$ restore s.0|2047;
the size of the tar file @/out/s.0 is not equal to the size in the check file\n
size is 2047, st_size is 2048\n
handleCheckFile:s.0|2047\n  tarBaseName:@/out/s.txt failed
UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
= -1
? restore s.0|; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
$ restore s.0|
subSize is empty
handleCheckFile:s.0|  tarBaseName:@/out/s.txt failed
UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
= -1
? restore s.0 = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore s.0; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore ; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
$ restore s.1|2048;s.2|2048;
slice tar file @/out/s.2 don't exist, error:No such file or directory
handleCheckFile:s.2|2048\n  tarBaseName:@/out/s.txt failed
UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 1 failed!
= -1
? restore s|s.0|2048; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 0 failed!
? restore s.1|2048;{x*2046}|2048; = -1 UnTarFile::UnSplitPack, handleCheckFile @/out/s.txt, num 1
    failed!
$ show @
= out/ out/s.0=#2048 out/s.1=#2048 out/s.txt=#2061 to/
$ restore s.0|0x800{_*2037}s.1|_04000_bytes
progress 512
progress 512
= 0
$ show @
= out/ out/s.txt=#2062 to/ to/f=2
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
$ archive @/out/s.0 1:d{124,77777777777}=
? restore s.0|512 = -5 UnTarFile::UnSplitPack, untar split @/out/s.0 failed!
$ show @
= out/ out/s.0=#512 out/s.txt=s.0|512 to/ to/a=1 to/b=1 to/f=2

# A restore stops at a slice that fails, and an abort counts as done.
$ plant to/ out/
$ archive @/out/s.0 0:f=1 end
$ archive @/out/s.1 0:f=2 junk#512
$ archive @/out/s.2 end
$ restore s.0|2048;s.1|1536;s.2|1024;
progress 512
progress 512
Invalid tar format.\n
isSplit cur size 1536, tarSize 1536
UnTarFile::UnSplitPack, untar split @/out/s.1 failed!
= -3
$ show @
= out/ out/s.1=#1536 out/s.2=#1024 out/s.txt=#27 to/ to/f=2
$ when abort at progress
$ archive @/out/s.1 0:empty= 0:f=2 0:g= end
$ restore s.1|3072;s.2|1024;
progress 512
= 0
$ show @
= out/ out/s.txt=#18 to/ to/empty= to/f=2 to/g=
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

// The padding is counted in 32 bits with a sign, where this size is a negative one.
TEST_F(Archives, AFileOf2GiBAndAByteHasNoPadding) {
    constexpr ssize_t kSize = (ssize_t{1} << 31) + 1;
    plant(tree->path(), {"src/f=", "fifo|"});
    ASSERT_EQ(truncate((*tree / "src/f").c_str(), kSize), 0);
    ssize_t total = 0;
    std::thread reader([&] {
        const int in = open((*tree / "fifo").c_str(), O_RDONLY | O_CLOEXEC);
        const int out = open("/dev/null", O_WRONLY | O_CLOEXEC);
        for (ssize_t count = 1; count > 0; total += count) {
            count = splice(in, nullptr, out, nullptr, 1 << 20, 0);
        }
        close(in);
        close(out);
    });
    EXPECT_TRUE(TarFile(nullptr).PackDir((*tree / "src").c_str(), (*tree / "fifo").c_str()));
    reader.join();
    EXPECT_EQ(total, static_cast<ssize_t>(kBlock) + kSize + 1024);
}

}  // namespace
}  // namespace peltex_test
