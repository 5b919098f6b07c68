// The folders handlers/, fileops/ and base/.
#include <sys/fsuid.h>
#include <unistd.h>

#include <filesystem>

#include "base/path_rules.h"
#include "base/permissions.h"
#include "fileops/copy.h"
#include "fileops/create_dir.h"
#include "fileops/delete.h"
#include "fileops/relabel.h"
#include "handlers/archive_handlers.h"
#include "handlers/brief_handlers.h"
#include "handlers/by_list_handler.h"
#include "handlers/copy_handlers.h"
#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using android::sp;

std::string text(int64_t result) {
    return "= " + std::to_string(result);
}

class Tasks : public Transcript {
  protected:
    Tasks() {
        const std::pair<const char*, int (*)(const char*)> functions[] = {
            {"deleteDir", deleteDir},
            {"isDir", isDir},
            {"filterDir", filterDir},
            {"filterFile", filterFile},
            {"allowed", [](const char* path) { return int{is_allow_access(path)}; }},
            {"shared", [](const char* path) { return int{isStoragePath(path)}; }},
            {"createDir", [](const char* path) { return createDir(path, 10123); }},
            {"relabel", [](const char* path) { return restorecon_backup_dir(path, "info", 7); }},
            {"fixup",
             [](const char* path) { return fixup_permissions_dir_file(path, 1, 2, 0660); }},
        };
        for (const auto& [name, function] : functions) {
            commands[name] = [function = function](const Lines& w) {
                return text(function(w.at(0).c_str()));
            };
        }
        commands["app"] = [](const Lines& w) {
            return "= \"" + GetAppNameByFullPath(w.at(0).c_str()) + "\"";
        };
        commands["inRoot"] = [](const Lines& w) {
            return text(CheckFilePath(w.at(0).c_str(), w.at(1).c_str()));
        };
        commands["copyFile"] = [this](const Lines& w) {
            return text(copyFile(w.at(0).c_str(), w.at(1).c_str(), makeTask(BACKUP_FILE, w)));
        };
        commands["copyDir"] = [this](const Lines& w) {
            sp<BackupTask> task = makeTask(BACKUP_DIR, w);
            return text(copyDir(w.at(0).c_str(), w.at(1).c_str(), nullptr, task));
        };
        act("user", [](const Lines& w) { setfsuid(static_cast<uid_t>(std::stoul(w.at(0)))); });
    }
    ~Tasks() override { setfsuid(0); }
};

TEST_F(Tasks, CopiesAndWhatTheyLeave) {
    expect(R"(
$ plant f[600]=1 old=longer
$ backup file @/f @/a/b = 0
label @/a/b info 10123 4
$ backup file @/f @/old = 0
label @/old info 10123 4
$ restore file @/f @/new/d = 0
$ show @ = a/* a/b/* a/b/f*=1 f[600]=1 new/* new/d/* new/d/f*=1 old*=1

$ plant f=#172032
$ restore file @/f @/d = 0
3 81920
3 163840

# A file that grows meanwhile is followed to its end.
$ plant f=#81920
$ when resize @/f 200000 at 3 81920
$ backup file @/f @/d = 0
3 81920
3 163840
label @/d info 10123 4
? show @/d = f*=#200000
$ when never

# Links, .dex files and the application's libraries are left out of a backup.
$ plant x/a/f[640]=1 x/lib/so=2 x/a/lib/data=3 x/x.dex=4 x/d/[700] x/l>a
$ backup dir @/x @/out = 0
Failed to isDir S_ISLNK:@/x/l
label @/out info 10123 4
$ show @/out/x = a/* a/f*=1 a/lib/* a/lib/data*=3 d/*
$ restore dir @/out @/x = 0
label @/x info 0 4
$ show @/x = a/ a/f[10123:10123,640]=1 a/lib/ a/lib/data[10123:10123,644]=3 d/[700] l>a lib/
    lib/so=2 x.dex=4

# A source that ends in a slash has no name.
$ backup dir @/x/d/ @/unnamed = 0
label @/unnamed info 10123 4
$ show @/unnamed = .txt*=

# A restore needs the files and not their records.
$ plant b/x/lib/so=1
$ restore dir @/b @/x = 0
failed to open info_file
restore failed, restore file info from @/b/x.txt error, ignore that.
$ show @/x = lib/* lib/so*=1

# A file is not written through a link that leaves the destination.
$ plant b/to/f=1 out=2 to/f>../out
$ restore dir @/b @/to = 0
Failed to checkFilePath, path: @/to/f, realPath: @/out, realOrgPath: @/to.
Skip copy file because path is invalid, frompath: @/b/to/f, topath: @/to/f
failed to open info_file
restore failed, restore file info from @/b/to.txt error, ignore that.
$ show @ = b/ b/to/ b/to/f=1 out=2 to/ to/f>../out

# A move takes with it what it leaves out, but for links.
$ plant x/a/f=1 x/lib/so=2 x/x.dex=3 x/e/[700] x/p|
$ move dir @/x @/to/d = 0
Failed to filterFile S_ISFIFO:@/x/p
label @/to/d info 10123 4
$ show @ = to/* to/d/* to/d/a/* to/d/a/f*=1 to/d/e/* to/d/lib/* to/d/lib/so*=2
$ plant d/s/a=1 d/s/l>a
$ move dir @/d @/to = -19
Failed to isDir S_ISLNK:@/d/s/l
Failed to isDir S_ISLNK:@/d/s/l
Failed to deleteDir, remove(@/d/s) error
Failed to delete the Dir after copydir, deleteDir(@/d/s)
label @/to info 10123 4
Failed to isDir S_ISLNK:@/d/s/l
Failed to deleteDir, remove(@/d/s) error
Failed to deleteDir, deleteDir(@/d/s) error
Failed to deleteDir, remove(@/d) error
move failed, deleteDir error!
$ show @ = d/ d/s/ d/s/l>a to/* to/s/* to/s/a*=1
$ plant d/f=1 d/d/g=2
$ move dir @/d @/to '' = -19
prepare_data_backuped_for_task failed, se_info is null!
move failed, prepare_data_backuped_for_task error!
$ show @ = d/ to/* to/d/* to/d/g*=2 to/f*=1
)");
}

TEST_F(Tasks, ArchivesAndWhatTheyLeave) {
    expect(R"(
$ plant x/f=1
$ backup tar @/x @/a/b = 0
label @/a/b info 10123 4
$ backup split @/x/ @/s/ 100 = 0
label @/s/x.tar.0 info 10123 0
4 @/s/x.tar.0|end
label @/s/x.tar.txt info 10123 0
$ backup tar @/x/ @/a/ = 0
TarFile::PackDir, clear end slash of path: @/x
label @/a/ info 10123 4
$ restore tar @/a/b/x.tar @/x = 0
label @/x info 10123 4
$ show @ = a/* a/.tar+=#2048 a/b/* a/b/x.tar+=#2048 s/* s/x.tar.0+=#2048 s/x.tar.txt+=#13 x/ x/f=1

# A set of slices lands beside the named directory, and is gone then.
$ restore split @/s/x.tar.txt @/a/b = 0
label @/a/b info 10123 4
$ show @ = a/* a/.tar+=#2048 a/b/* a/b/x.tar+=#2048 a/f=1 s/* s/x.tar.txt+=#13 x/ x/f=1

# Whatever the result, what was unpacked is relabelled.
$ plant f=x empty= out/
$ restore tar @/f @/out = -3
tarfile size should be a multiple of 512 bytes: 1\n
restoreTarBase, unPack error return -3.
label @/out info 10123 4

# A label that is refused fails the backup of a whole archive and of slices, and nothing else.
$ refuse @/x
$ backup tar @/out @/x = -13
label @/x info 10123 4
Failed to recursive restorecon for @/x , uid(10123), se_info(info), error [Permission denied]\n
backupTarBase failed, prepare_data_backuped_for_task error!
? restore tar @/x/out.tar @/x = 0 restoreTarBase, restorecon_backup_dir failed, ignore that.
? backup file @/f @/x = 0 prepare_data_backuped_for_task failed, restorecon_backup_dir error!
    ignore that.
$ refuse @/x/out.tar.0
? backup split @/out @/x 100 = -1 backupSplitTarBase: tar failed, src: @/out, dst: @/x/out.tar
)");
}

TEST_F(Tasks, SharedStorageKeepsItsOwnModesAndLabels) {
    expect(R"(
$ plant b/shared.test/f=1 b/shared.test.txt=nonsense
$ archive @/a.tar 0:f=1 end
$ restore dir @/b /storage/emulated/shared.test = 0
$ show /storage/emulated/shared.test = f*=1
$ restore tar @/a.tar /storage/emulated/shared.test = 0
$ show /storage/emulated/shared.test = f=1
$ restore dir @/b /mnt/androidwritable/shared.test = 0
? shared /storage/emulated/0 = 1
? shared /mnt/androidwritable = 1
? shared /storage/emulate = 0
? shared /data/storage/emulated = 0
)");
    std::filesystem::remove_all("/storage/emulated/shared.test");
    std::filesystem::remove_all("/mnt/androidwritable/shared.test");
}

TEST_F(Tasks, HowTheyFail) {
    ASSERT_EQ(chdir("/"), 0);
    expect(R"(
$ plant file=x x/f=1 empty= d/x.txt/ d/x.tar/ d/x.tar.0/ d/d.txt/ rules=[include]/x
$ plant+ full/x.tar.0>/dev/full full/x.txt>/dev/full noslice/x.tar.0/ nolist/x.tar.txt/
? backup file @/file @/file/d = -11 backup failed, createDir error
? backup file @/none @/out = -11 backup failed, copyFile error
? backup file @/file @/out '' = -11 backup failed, prepare_data_backuped_for_task error!
? backup dir @/x @/file/d = -1 backup failed,create @/file/d/x failed, error=Not a directory
? backup dir @/x @/d = -12 backup failed,fopen [@/d/x.txt] error\n
? backup dir @/x @/full = -12 backup failed, save attr file error!
? backup dir @/none @/out = -12 backup failed, copyDir error!
? backup dir @/x @/out '' = -12 backup failed, prepare_data_backuped_for_task error!
? backup dir data @/out = -12 backup failed,prepare_data_backup_dir failed!
? restore file @/file @/file/d = -16 restore failed, createDir error
? restore file @/none @/out = -16 restore failed, copyFile error
? restore dir @/none @/out = -17 restore failed, copyDir error!
? restore dir @/none data = -17 restore failed,prepare_data_backup_dir failed!
? move dir @/x @/file/d = -19 move failed,create @/file/d failed, error=Not a directory
? move dir @/none @/out = -19 move failed, copyDir error!
? backup tar @/x @/out '' = -13 backupTarBase prepare_data_backuped_for_task failed, se_info is
    null!
? backup tar @/none @/out = -13 backupTarBase, source path @/none not exist!
? backup tar data @/out = -13 backupTarBase failed, prepare_data_backup_dir failed!
? backup tar @/x @/file/d = -13 backupTarBase failed,create @/file/d failed, error=Not a directory
? backup tar @/x @/d = -13 backupTarBase failed to tar, src: @/x, dst: @/d/x.tar
? backup split @/none @/out 1 = -14 backupSplitTarBase: source path @/none not exist!
? backup split data @/out 1 = -14 backupSplitTarBase: prepare_data_backup_dir failed!
? backup split @/x @/file/d 1 = -14 backupSplitTarBase: create @/file/d failed, error=Not a
    directory
? backup split @/x @/noslice 1 = -1 backupSplitTarBase: tar failed, src: @/x, dst: @/noslice/x.tar
? backup split @/x @/nolist 1 = -1 backupSplitTarBase: tar failed, src: @/x, dst: @/nolist/x.tar
? backup split @/x @/full 1 = -1 backupSplitTarBase: tar failed, src: @/x, dst: @/full/x.tar
? restore tar @/file @/d '' = -18 restoreTarBase prepare_data_backuped_for_task failed, se_info is
    null!
? restore tar @/none @/d = -18 restoreTarBase, source path @/none not exist!
? restore split @/none @/d = -18 restoreTarBase, source path @/none not exist!
? restore split @/file @/d = -1 label @/d info 10123 4
? backup byfile @/empty @/file/d = -15 backup failed,create @/file/d/d failed, error=Not a directory
? backup byfile @/empty @/d = -15 backup failed,fopen [@/d/d.txt] error\n
? backup byfile @/none @/out = -15 backup failed,GetBackupFileAndProcess error\n
? backup byfile @/d @/out = -15 backup failed,GetBackupFileAndProcess error\n
? backup byfile @/empty @/out '' = -15 backup failed, prepare_data_backuped_for_task error!
? backup byfile @/empty '' = -15 backup failed,dest path is null
? get_brief dir @/x @/file/b = -20 CreateAndFixupBriefFile:fopen [@/file/b] error\n
? get_brief dir @/x @/file/d/b = -20 CreateAndFixupBriefFile failed, createDir error
? get_brief dir @/file @/b = -20 GetFileBriefsByDir:WriteBriefUnderDir [@/file] error\n
? get_brief dir '' @/b = -20 GetFileBriefsByDir:src_path or brief_path is null
? get_brief dir @/x '' = -20 GetFileBriefsByDir:src_path or brief_path is null
? get_brief byfile @/none @/b = -21 GetIncludeAndExcludeFolder failed
? get_brief byfile @/rules @/file/b = -21 CreateAndFixupBriefFile:fopen [@/file/b] error\n
)");
}

TEST_F(Tasks, PrimitivesAndWhatTheyLeave) {
    expect(R"(
# Directories: what is missing is made, and watched for depth.
$ plant a/[700] f= 4>.
? createDir @/a/b/c = 0
? createDir @/4/4/4/4/4/4/4/deep = 0 monitor dir(@/4/4/4/4/4/4/4/deep) depth longer than 10.
? createDir @/4/4/4/4/4/4/ten = 0
? createDir / = 0
? createDir '' = -1 Failed to createDir:path is NULL or length of path is 0
? createDir @/f/d = -1 Failed to mkdir(@/f/d), error=Not a directory
$ createDir ~2042/cut/off = 0
monitor dir(@/./cut/off) depth longer than 10.
$ show @ = 4>. a/[700] a/b/* a/b/c/* cut/* deep/* f= ten/*

# Without the right to give it away, a target keeps the owner and the mode that it was made with.
$ plant o/[777] f=x o/mine[65534:1,600]=
$ user 65534
? createDir @/o/d = -1 Failed to createDir: fixup permissions error!
? copyFile @/f @/o/f = -1 Failed to copy file(@/o/f): fixup permissions error!
? fixup @/o/mine = -1 Failed to chown (@/o/mine), error=Operation not permitted
? fixup @/f = -1 Failed to chmod (@/f), error=Operation not permitted
$ user 0
? fixup '' = -1 fixup_backup_dir_file, path is NULL or length of path is 0
$ show @ = f=x o/[777] o/d/[65534:0,771] o/f[65534:0,640]= o/mine[65534:1,660]=

# One file.
$ plant f= d/ f12345=
? copyFile @/no @/to = -1 Failed to copyFile file: @/no, error=No such file or directory
? copyFile @/f @/no/to = -1 Failed to open file: @/no/to, error=No such file or directory
? copyFile @/d @/to = -1 Failed to read file: @/d, error=Is a directory
? copyFile '' @/f = -1 Failed to copyFile file:path is NULL or length of path is 0
? copyFile @/f '' = -1 Failed to copyFile file:path is NULL or length of path is 0
$ copyFile @/f12345 ~2041 = -1
Failed to open file: @//./f1234, error=File name too long
? copyFile @/f12345 ~2040 = 0
$ show @ = d/ f= f12345*= to*=

# Trees. One that cannot be gone through whole is not copied; what cannot be made is left out.
$ plant d/f= file= to/f>no/f
? copyDir '' @/to = -1 Failed to copyDir, path is NULL or length of path is 0
? copyDir @/no @/to = -1 Failed to copyDir, @/no not exists
? copyDir @/file @/to = -1 Failed to copyDir, opendir(@/file) error
? copyDir @/d @/file/d = -1 Failed to copyDir, createDir(@/file/d) error
? copyDir @/d @/to = 0 Skip inaccessible file @/to/f, error=No such file or directory
$ plant d/d/f= to/d/f/f/
$ copyDir @/d @/to = -1
Failed to open file: @/to/d/f/f, error=Is a directory
Failed to copyDir, copyFile(@/d/d/f) error
Failed to copyDir, copyDir(@/d/d) error

# Names that are cut: to what is not there, and to the directory itself.
$ plant ab=
? copyDir ~2045 @/../to = 0 Failed to isDir, lstat(@//./a), error=No such file or directory
? copyDir ~2046 @/../to = -1 Failed to copyDir, opendir(@/.) error
$ plant .x/f=
? copyDir ~2045 @/../to = 0
$ deleteDir ~2045 = -1
Failed to deleteDir, remove(@//.) error
? deleteDir ~2046 = -1 Failed to deleteDir, remove(@/.) error
$ show @ = .x/ .x/f=

# Links are left alone, and so are the directories that hold them.
$ plant d/a/f= d/s! d/p| f= t/f= l/d/l>../../t
? deleteDir @/d = 0
? deleteDir @/d = 0
? deleteDir '' = 0
? deleteDir @/f = -1
$ deleteDir @/l = -1
Failed to isDir S_ISLNK:@/l/d/l
Failed to deleteDir, remove(@/l/d) error
Failed to deleteDir, deleteDir(@/l/d) error
Failed to deleteDir, remove(@/l) error
$ show @ = f= l/ l/d/ l/d/l>../../t t/ t/f=
? relabel '' = -1 restorecon_backup_dir error, path is NULL or length is 0
)");
    EXPECT_EQ(prepare_data_backuped_for_task(nullptr), -1);
}

TEST_F(Tasks, RulesForPathsAndEntries) {
    ASSERT_EQ(chdir("/tmp"), 0);
    writeFile("/tmp/alone.dex", "");
    expect(R"(
? allowed /data/data/com.x = 1
? allowed /data/database = 1
? allowed /data/user_de/0/com.x = 1
? allowed /data/misc/wifi_old = 1
? allowed /data/misc/apexdata/com.android.wifi/x = 1
? allowed /storage/emulated/0 = 1
? allowed /mnt/androidwritable/0 = 1
? allowed /data/data/com.x/.. = 1
? allowed /data/data/a../b = 0 is_allow_access, illegalpath:/data/data/a../b.
? allowed /data/app/x = 0 is_allow_access, /data/app/x don`t match dataPath.
? allowed data/data = 0 is_allow_access, data/data don`t match dataPath.
? allowed '' = 0 is_allow_access, path is NULL or length of path is 0
? app /data/data/com.x = "com.x"
? app /data/data/com.x/ = ""
? app com.x = ""
? filterDir lib = 1
? filterDir lib64 = 0
? filterDir '' = -1 filterDir, dirName is NULL or length of dirName is 0

$ plant f= a.dex= .dex= x.DEX= a.dex.bak= b.dex/readme= l>f dl>b.dex p| s!
? isDir @/f = 0
? isDir @/b.dex = 1
? isDir @/p = 0
? isDir @/dl = -1 Failed to isDir S_ISLNK:@/dl
? isDir @/no = -1 Failed to isDir, lstat(@/no), error=No such file or directory
? isDir '' = -1 Failed to isDir, path is NULL or length of path is 0
? filterFile @/f = 0
? filterFile @/a.dex = -1
? filterFile @/.dex = -1
? filterFile @/x.DEX = 0
? filterFile @/a.dex.bak = 0
? filterFile @/b.dex = -1
? filterFile @/b.dex/readme = 0
? filterFile alone.dex = 0
? filterFile /dev/null = 0
? filterFile @/l = -1 Failed to filterFile S_ISLNK:@/l
? filterFile @/p = -1 Failed to filterFile S_ISFIFO:@/p
? filterFile @/s = -1 Failed to filterFile S_ISSOCK:@/s
? filterFile @/no = -1 Failed to filterFile, lstat(@/no), error=No such file or directory
? filterFile '' = -1 filterFile, filePath is NULL or length of filePath is 0

# The kernel resolves a path, and where no descriptor is left, the C library.
$ plant r/in/f= r/out>../f f= r2/f= r/loop>loop
? inRoot @/r/in/f @/r = 0
? inRoot @/r/../r2/f @/r = 0
? inRoot @/r/yet/to/be/made @/r = 0
? inRoot @/r/loop @/r = 0
$ inRoot @/r/out @/r = -1
Failed to checkFilePath, path: @/r/out, realPath: @/f, realOrgPath: @/r.
$ descriptors 0
? inRoot @/r/in/f @/r = 0
? inRoot @/r/yet/to/be/made @/r = 0
? inRoot @/r/loop @/r = 0
$ inRoot @/r/out @/r = -1
Failed to checkFilePath, path: @/r/out, realPath: @/f, realOrgPath: @/r.
$ descriptors 4096
)");
    EXPECT_EQ(CheckFilePath((*tree / "r/out").c_str(), nullptr), 0);
    EXPECT_FALSE(is_allow_access(nullptr));
}

TEST_F(Tasks, FilesThatVanishUnderACopy) {
    expect(R"(
$ plant x/f=1 out/x/f>g out/x/g=
$ when unlink @/x/f at Failed to isDir S_ISLNK
$ backup dir @/x @/out = 0
Failed to isDir S_ISLNK:@/out/x/f
Failed to open file: @/x/f, error=No such file or directory
Skip inaccessible file @/x/f, error=No such file or directory
label @/out info 10123 4
$ plant x/f=#81920
$ when unlink @/x/f at 3 81920
$ backup dir @/x @/out = -12
3 81920
stat [@/x/f] error [2]\n
Failed to copyDir, write file attr: @/x/f, error=No such file or directory
backup failed, copyDir error!
)");
}

TEST_F(Tasks, HandlersRefuseTasksOfOtherKinds) {
    const std::pair<int32_t (*)(sp<BackupTask>&), int32_t> handlers[] = {
        {backupFileBase, -11},  {backupDirBase, -12},   {backupTarBase, -13},
        {backupSplitBase, -14}, {restoreFileBase, -16}, {restoreDirBase, -17},
        {restoreTarBase, -18},  {moveDirBase, -19}};
    sp<BackupTask> task = makeTask(GET_BRIEFS_BY_DIR, {"/data/data/x", "/data/data/y"});
    for (const auto& [handler, result] : handlers) {
        EXPECT_EQ(handler(task), result);
    }
    const TellBriefSize tell = [](const std::string& total) { ADD_FAILURE() << total; };
    EXPECT_EQ(BackupByFileBase(task), -15);
    EXPECT_EQ(GetFileBriefsByFile(task, tell), -21);
    EXPECT_EQ(GetFileBriefsByDir(makeTask(BACKUP_FILE, {"/data/data/x", "/data/data/y"}), tell),
              -20);
}

}  // namespace
}  // namespace peltex_test
