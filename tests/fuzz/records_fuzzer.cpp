// Permission records. Input: an attribute file. It is applied, each of its lines is parsed by
// itself, and its first bytes are the name of a file whose record is written, with others, and
// applied.
//
// A record gives a mode to any file or directory that it names: what is named "keep" may get
// another mode when the input holds that name, and nothing else ever changes.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "brief/permission_record.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/fuzz/support/sentinel.h"
#include "tests/fuzz/support/target.h"

namespace peltex_fuzz {

using namespace android::installd;

namespace {

constexpr char kAttributes[] = "/in.txt";
constexpr char kPackage[] = "/data/app";
constexpr char kNamed[] = "/data/named";  // holds the file with the input's name
constexpr char kDirectory[] = "/data/app/d";
constexpr char kOdd[] = "/data/app/line\nfeed;1";
constexpr size_t kLongestName = 255;
constexpr size_t kLongestLine = 2047;

Sentinel* gKept;
Sentinel* gRepaired;

std::string describe(const char* path) {
    struct stat status = {};
    if (stat(path, &status) != 0) {
        return "";
    }
    return ";" + std::to_string(status.st_mode & 07777) + ";" +
           (S_ISDIR(status.st_mode) ? "1" : "0") + ";" + std::to_string(status.st_size) + ";" +
           std::to_string(status.st_mtime) + "\n";
}

int apply(const std::string& text) {
    writeFile(kAttributes, text);
    return restore_application_from_infofile(kPackage, kAttributes, "default");
}

void parse(std::string line) {
    const std::string before = line;
    const auto info = std::make_unique<File_info>();
    const int fields = parse_line_info(line.data(), *info);
    if (fields < -1 || fields > 5) {
        fail("%d fields", fields);
    }
    if (fields < 5) {
        return;
    }
    const size_t length = strnlen(info->path, sizeof(info->path));
    if (before.compare(0, length, info->path) != 0 || before[length] != ';' ||
        std::count(before.begin() + static_cast<ptrdiff_t>(length), before.end(), ';') != 4) {
        fail("the path of \"%s\" is not \"%s\"", before.c_str(), info->path);
    }
    if (info->mode < 0 || info->mode > 7777 || info->type < 0 || info->type > 1 || info->size < 0 ||
        info->modified_time < 0) {
        fail("a number of \"%s\" is out of range", before.c_str());
    }
}

void parseLines(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        // Up to a NUL: the parser takes a C string.
        parse(text.substr(at, std::min(end - at, kLongestLine)).c_str());
        at = end;
    }
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Records bring back the modes of any files that they can name, among others.
void writeAndApply(std::string name) {
    name.resize(std::min({name.find('\0'), name.find('/'), name.size(), kLongestName}));
    if (name.empty() || name == "." || name == "..") {
        return;
    }
    const std::string path = std::string(kNamed) + "/" + name;
    const mode_t mode = static_cast<unsigned char>(name[0]) * 16 + 15;
    writeFile(path, name, mode);
    std::string expected;
    FILE* stream = fopen(kAttributes, "w");
    for (const std::string& each : {std::string(kDirectory), path, std::string(kOdd)}) {
        do_backup_perm(each.c_str(), stream);
        expected += each + describe(each.c_str());
    }
    fclose(stream);
    if (readFile(kAttributes) != expected) {
        fail("not as expected: \"%s\"", readFile(kAttributes).c_str());
    }
    for (const char* each : {kDirectory, path.c_str(), kOdd}) {
        chmod(each, 0);
    }
    if (restore_application_from_infofile(kPackage, kAttributes, "default") != 0 ||
        modeOf(kDirectory) != 0755 || modeOf(path) != mode || modeOf(kOdd) != 0644) {
        fail("the records of \"%s\" and others do not bring them back", path.c_str());
    }
    unlink(path.c_str());
}

}  // namespace

void prepare() {
    makeDir("/data");
    makeDir(kPackage);
    makeDir(kNamed);
    makeDir(kDirectory);
    writeFile("/data/app/f;1", "12345");
    writeFile(kOdd, "");
    makeLink("f;1", "/data/app/link");
    writeFile("/data/keep", "keep");
    writeFile(kAttributes, "");
    gKept = new Sentinel({"/data/keep"});
    gRepaired = new Sentinel(
        {"/", "/data", kPackage, kDirectory, "/data/app/f;1", kOdd, kAttributes, "/data/keep"});
}

void runInput(const std::string& input) {
    apply(input);
    gKept->check(input.find("keep") == std::string::npos ? Sentinel::kNothing
                                                         : Sentinel::kOwnerAndMode);
    gRepaired->repair();
    parseLines(input);
    writeAndApply(input);
}

}  // namespace peltex_fuzz
