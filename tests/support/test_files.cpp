#include "tests/support/test_files.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace peltex_test {

namespace {

void makeParent(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
}

}  // namespace

void makeDir(const std::string& path, mode_t mode) {
    fs::create_directories(path);
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    makeParent(path);
    std::ofstream(path, std::ios::binary) << content;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void makeLink(const std::string& target, const std::string& path) {
    makeParent(path);
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0) << path;
}

void makeFifo(const std::string& path) {
    makeParent(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0) << path;
}

void makeSocket(const std::string& path) {
    makeParent(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0) << path;
    close(fd);
}

std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

bool exists(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

struct stat statOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t modeOf(const std::string& path) {
    return statOf(path).st_mode & 07777;
}

std::string ownerAndMode(const std::string& path) {
    const struct stat status = statOf(path);
    std::ostringstream text;
    text << status.st_uid << ':' << status.st_gid << ' ' << std::oct << (status.st_mode & 07777);
    return text.str();
}

std::vector<std::string> listTree(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        const bool isDirectory = entry.is_directory() && !entry.is_symlink();
        names.push_back(entry.path().string().substr(path.size() + 1) + (isDirectory ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

TempTree::TempTree() {
    fs::create_directories("/data/data");
    char name[] = "/data/data/test.XXXXXX";
    EXPECT_NE(mkdtemp(name), nullptr);
    chmod(name, 0755);
    mPath = name;
}

TempTree::~TempTree() {
    fs::remove_all(mPath);
}

}  // namespace peltex_test
