#include "tests/support/test_files.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "tests/support/jail.h"

namespace fs = std::filesystem;

namespace peltex_test {

namespace {

void expect(bool isDone, const std::string& path) {
    if (!isDone) {
        fail("the test's own: %s: %s", path.c_str(), strerror(errno));
    }
}

void makeParent(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
}

Entry entryAt(const std::string& path) {
    const mode_t type = statOf(path).st_mode & S_IFMT;
    return {type, ownerAndMode(path),
            S_ISREG(type)   ? readFile(path)
            : S_ISLNK(type) ? fs::read_symlink(path).string()
                            : ""};
}

}  // namespace

void makeDir(const std::string& path, mode_t mode) {
    fs::create_directories(path);
    expect(chmod(path.c_str(), mode) == 0, path);
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    makeParent(path);
    FILE* file = fopen(path.c_str(), "we");
    expect(file != nullptr, path);
    const bool isWritten = fwrite(content.data(), 1, content.size(), file) == content.size();
    expect(fclose(file) == 0 && isWritten, path);
    expect(chmod(path.c_str(), mode) == 0, path);
}

void makeLink(const std::string& target, const std::string& path) {
    makeParent(path);
    fs::create_symlink(target, path);
}

void makeNode(const std::string& path, mode_t type) {
    makeParent(path);
    expect(mknod(path.c_str(), type | 0644, 0) == 0, path);
}

void emptyDir(const std::string& path) {
    for (const auto& entry : fs::directory_iterator(path)) {
        fs::remove_all(entry);
    }
}

std::string readFile(const std::string& path) {
    std::string content;
    FILE* file = fopen(path.c_str(), "re");
    char piece[1 << 16];
    while (file != nullptr && !feof(file) && !ferror(file)) {
        content.append(piece, fread(piece, 1, sizeof(piece), file));
    }
    if (file != nullptr) {
        fclose(file);
    }
    return content;
}

bool exists(const std::string& path) {
    return fs::exists(fs::symlink_status(path));
}

struct stat statOf(const std::string& path) {
    struct stat status = {};
    expect(lstat(path.c_str(), &status) == 0, path);
    return status;
}

std::string ownerAndMode(const std::string& path) {
    const struct stat status = statOf(path);
    std::ostringstream text;
    text << status.st_uid << ':' << status.st_gid << ' ' << std::oct << (status.st_mode & 07777);
    return text.str();
}

Lines listTree(const std::string& path) {
    Lines names;
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        const bool isDirectory = entry.is_directory() && !entry.is_symlink();
        names.push_back(entry.path().string().substr(path.size() + 1) + (isDirectory ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

Snapshot snapshotOf(const std::string& directory) {
    Snapshot entries = {{".", entryAt(directory)}};
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        const std::string path = entry.path().string();
        entries[path.substr(directory.size() + 1)] = entryAt(path);
    }
    return entries;
}

Lines changesBetween(const Snapshot& before, const Snapshot& after) {
    Lines changes;
    for (const auto& [path, entry] : before) {
        const auto now = after.find(path);
        if (now == after.end()) {
            changes.push_back(path + ": removed");
        } else if (now->second.type != entry.type) {
            changes.push_back(path + ": replaced");
        } else {
            if (now->second.content != entry.content) {
                changes.push_back(path + ": written");
            }
            if (now->second.ownerAndMode != entry.ownerAndMode) {
                changes.push_back(path + ": " + now->second.ownerAndMode);
            }
        }
    }
    for (const auto& [path, entry] : after) {
        if (before.count(path) == 0) {
            changes.push_back(path + ": made");
        }
    }
    return changes;
}

TempTree::TempTree(const std::string& parent) : mPath(parent + "/test.XXXXXX") {
    fs::create_directories(parent);
    expect(mkdtemp(mPath.data()) != nullptr, mPath);
    makeDir(mPath);
}

TempTree::~TempTree() {
    fs::remove_all(mPath);
}

}  // namespace peltex_test
