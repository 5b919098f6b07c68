// The least that any program has to do for each job, as the floor of what is compared: system calls
// by name within the directory, contents in pieces of 512 KiB, no check, no message.
//
//   bench_floor pack DIRECTORY ARCHIVE      readdir, lstat, open, read; one header per entry
//   bench_floor unpack ARCHIVE DIRECTORY    read; mkdir, symlink, open, write; chmod, chown
//   bench_floor copy DIRECTORY DIRECTORY    readdir, lstat, open, read; open, write, fsync, chmod,
//                                           chown
//   bench_floor brief DIRECTORY FILE        readdir, lstat; one line per entry
//
// What pack writes has the size of an archive and no valid headers.

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

constexpr size_t kPiece = 512 * 1024;
constexpr size_t kBlock = 512;
constexpr uid_t kUid = 10123;

[[noreturn]] void fail(const char* what) {
    perror(what);
    exit(1);
}

int check(int result, const char* what) {
    if (result < 0) {
        fail(what);
    }
    return result;
}

// Gathers what is written into pieces.
class Output {
  public:
    explicit Output(int fd) : mFd(fd), mBuffer(kPiece) {}

    char* space() { return mBuffer.data() + mUsed; }
    size_t room() const { return kPiece - mUsed; }
    void add(size_t size) {
        mUsed += size;
        if (mUsed == kPiece) {
            flush();
        }
    }
    void put(const void* data, size_t size) {
        if (room() < size) {
            flush();
        }
        memcpy(space(), data, size);
        add(size);
    }
    void flush() {
        if (write(mFd, mBuffer.data(), mUsed) != static_cast<ssize_t>(mUsed)) {
            fail("write");
        }
        mUsed = 0;
    }

  private:
    const int mFd;
    std::vector<char> mBuffer;
    size_t mUsed = 0;
};

// Calls visit(directory, name, status) for each entry of the directory that `fd` is open on, which
// it takes, and enter(name), leave() around those of a directory below.
template <typename Visitor>
void walk(int fd, Visitor& visitor) {
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        fail("fdopendir");
    }
    while (const dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
            continue;
        }
        struct stat status = {};
        check(fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW), name);
        visitor.visit(fd, name, status);
        if (S_ISDIR(status.st_mode)) {
            visitor.enter(name);
            walk(check(openat(fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC), name), visitor);
            visitor.leave();
        }
    }
    closedir(dir);
}

int openDirectory(const char* path) {
    return check(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
}

int createFile(int directory, const char* path, mode_t mode) {
    return check(openat(directory, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode), path);
}

struct Packer {
    Output out;

    void enter(const char* /*name*/) {}
    void leave() {}
    void visit(int directory, const char* name, const struct stat& status) {
        char header[kBlock] = {};
        strncpy(header, name, 99);
        if (S_ISLNK(status.st_mode)) {
            check(static_cast<int>(readlinkat(directory, name, header + 157, 100)), name);
        }
        out.put(header, sizeof(header));
        if (!S_ISREG(status.st_mode)) {
            return;
        }
        const int fd = check(openat(directory, name, O_RDONLY | O_CLOEXEC), name);
        for (auto left = static_cast<size_t>(status.st_size); left > 0;) {
            const ssize_t length = read(fd, out.space(), std::min(left, out.room()));
            if (length <= 0) {
                fail(name);
            }
            left -= static_cast<size_t>(length);
            out.add(static_cast<size_t>(length));
        }
        close(fd);
        const char zeros[kBlock] = {};
        out.put(zeros, (kBlock - static_cast<size_t>(status.st_size) % kBlock) % kBlock);
    }
};

struct Copier {
    std::vector<char> buffer;
    std::vector<int> targets;
    mode_t mode = 0771;

    void enter(const char* name) {
        targets.push_back(
            check(openat(targets.back(), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC), name));
    }
    void leave() {
        close(targets.back());
        targets.pop_back();
    }
    void visit(int directory, const char* name, const struct stat& status) {
        const int target = targets.back();
        if (S_ISDIR(status.st_mode)) {
            check(mkdirat(target, name, mode), name);
            check(fchmodat(target, name, mode, 0), name);
            check(fchownat(target, name, kUid, kUid, AT_SYMLINK_NOFOLLOW), name);
        } else if (S_ISREG(status.st_mode)) {
            copyFile(directory, target, name);
        }
    }
    void copyFile(int directory, int target, const char* name) {
        const int from = check(openat(directory, name, O_RDONLY | O_CLOEXEC), name);
        const int to = createFile(target, name, mode);
        check(fchown(to, kUid, kUid), name);
        check(fchmod(to, mode), name);
        for (ssize_t length = 0; (length = read(from, buffer.data(), kPiece)) > 0;) {
            if (write(to, buffer.data(), static_cast<size_t>(length)) != length) {
                fail(name);
            }
        }
        check(fsync(to), name);
        close(to);
        close(from);
    }
};

struct Brief {
    Output out;
    std::string path;

    void enter(const char* name) {
        path += '/';
        path += name;
    }
    void leave() { path.resize(path.rfind('/')); }
    void visit(int /*directory*/, const char* name, const struct stat& status) {
        char line[2048];
        const int length = snprintf(line, sizeof(line), "%s/%s;%u;%d;%lld;%lld\n", path.c_str(),
                                    name, status.st_mode & 07777, S_ISDIR(status.st_mode),
                                    static_cast<long long>(status.st_size),
                                    static_cast<long long>(status.st_mtime));
        out.put(line, static_cast<size_t>(length));
    }
};

// The archive, one piece at a time.
class Input {
  public:
    explicit Input(const char* path)
        : mFd(check(open(path, O_RDONLY | O_CLOEXEC), path)), mBuffer(kPiece) {}

    // At most `wanted` bytes at `data`, at least one.
    size_t take(size_t wanted, const char*& data) {
        if (mNext == mEnd) {
            const ssize_t length = read(mFd, mBuffer.data(), kPiece);
            if (length <= 0) {
                fail("archive");
            }
            mNext = 0;
            mEnd = static_cast<size_t>(length);
        }
        const size_t size = std::min(wanted, mEnd - mNext);
        data = mBuffer.data() + mNext;
        mNext += size;
        return size;
    }
    // The same for what may lie in two pieces: a header (whole blocks never do), a record.
    std::string text(size_t size) {
        std::string all;
        while (all.size() < size) {
            const char* data = nullptr;
            const size_t length = take(size - all.size(), data);
            all.append(data, length);
        }
        return all;
    }

  private:
    const int mFd;
    std::vector<char> mBuffer;
    size_t mNext = 0;
    size_t mEnd = 0;
};

size_t padded(size_t size) {
    return (size + kBlock - 1) / kBlock * kBlock;
}

std::string nameField(const char* field) {
    return std::string(field, strnlen(field, 100));
}

void unpackFile(Input& in, int target, const char* path, mode_t mode, size_t size) {
    const int fd = createFile(target, path, mode);
    const char* data = nullptr;
    for (size_t left = size; left > 0;) {
        const size_t length = in.take(left, data);
        if (write(fd, data, length) != static_cast<ssize_t>(length)) {
            fail(path);
        }
        left -= length;
    }
    check(fchmod(fd, mode), path);
    check(fchown(fd, kUid, kUid), path);
    close(fd);
    in.take(padded(size) - size, data);
}

void unpack(const char* archive, const char* directory) {
    const int target = openDirectory(directory);
    Input in(archive);
    std::string longName;
    std::string longLink;
    while (true) {
        const char* header = nullptr;
        in.take(kBlock, header);
        if (header[0] == '\0') {
            return;
        }
        const char type = header[156];
        const auto mode = static_cast<mode_t>(strtoul(header + 100, nullptr, 8));
        const auto size = static_cast<size_t>(strtoull(header + 124, nullptr, 8));
        if (type == 'L' || type == 'K') {
            (type == 'L' ? longName : longLink) = in.text(padded(size)).c_str();
            continue;
        }
        const std::string name = longName.empty() ? nameField(header) : longName;
        const char* path = name.c_str() + (name[0] == '/' ? 1 : 0);
        if (type == '5') {
            check(mkdirat(target, path, mode), path);
            check(fchmodat(target, path, mode, 0), path);
            check(fchownat(target, path, kUid, kUid, 0), path);
        } else if (type == '2') {
            const std::string link = longLink.empty() ? nameField(header + 157) : longLink;
            check(symlinkat(link.c_str(), target, path), path);
            check(fchownat(target, path, kUid, kUid, AT_SYMLINK_NOFOLLOW), path);
        } else {
            unpackFile(in, target, path, mode, size);
        }
        longName.clear();
        longLink.clear();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: bench_floor pack|unpack|copy|brief FROM TO\n");
        return 2;
    }
    const std::string job = argv[1];
    const char* from = argv[2];
    const char* to = argv[3];
    if (job == "pack") {
        Packer packer{Output(createFile(AT_FDCWD, to, 0660))};
        walk(openDirectory(from), packer);
        const char end[2 * kBlock] = {};
        packer.out.put(end, sizeof(end));
        packer.out.flush();
    } else if (job == "unpack") {
        unpack(from, to);
    } else if (job == "copy") {
        Copier copier{std::vector<char>(kPiece), {openDirectory(to)}};
        walk(openDirectory(from), copier);
    } else if (job == "brief") {
        Brief brief{Output(createFile(AT_FDCWD, to, 0660)), from};
        walk(openDirectory(from), brief);
        brief.out.flush();
    } else {
        fprintf(stderr, "bench_floor: no such job: %s\n", argv[1]);
        return 2;
    }
    return 0;
}
