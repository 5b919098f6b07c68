// Tested by tests/client/peltexctl.md.
#include "task/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>
#include <utility>

#include "ui/text.h"

namespace peltexctl {

namespace {

class Walk {
  public:
    Walk(const std::string& top, const WalkOptions& options, const TreeSink& sink)
        : options_(options), sink_(sink), path_(top + "/"), top_(path_.size()) {}

    bool Directory(UniqueFd opened) {
        const UniqueDir stream(fdopendir(opened.get()));
        if (stream == nullptr) {
            return false;
        }
        const int directory = opened.release();  // closed with the stream
        const size_t length = path_.size();
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no two threads share a stream
        for (const dirent* entry; (entry = readdir(stream.get())) != nullptr; errno = 0) {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..") {
                path_.append(name);
                Entry(directory, entry->d_name, length == top_);
                path_.resize(length);
            }
        }
        return errno == 0 || errno == ENOENT;
    }

  private:
    void Entry(int directory, const char* name, bool is_top) {
        if (is_top &&
            ((options_.is_excluded && options_.is_excluded(path_)) ||
             (options_.half && std::hash<std::string_view>()(name) % 2 != options_.half))) {
            return;
        }
        struct stat status = {};
        if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return sink_.leave_out(LeftOut::kUnreadable, Below());
        }
        if (const std::optional<LeftOut> reason = WhyLeftOut(name, status, is_top)) {
            return sink_.leave_out(*reason, Below());
        }
        TallyEntry entry = EntryOf(Below(), status, options_.modes);
        if (entry.type == '2') {
            entry.link = ReadLink(directory, name);
        }
        sink_.take(entry);
        if (S_ISDIR(status.st_mode)) {
            path_ += '/';
            if (!Directory(OpenDirectoryAt(directory, name))) {
                sink_.leave_out(LeftOut::kUnreadable, Below());
            }
        }
    }

    // In the order in which the library looks.
    std::optional<LeftOut> WhyLeftOut(std::string_view name, const struct stat& status,
                                      bool is_top) const {
        const mode_t type = status.st_mode & S_IFMT;
        const bool is_directory = type == S_IFDIR;
        // A copy takes what a device holds; an archive keeps a link that is called *.dex.
        const bool packs = Has(LeftOut::kHardLinked);
        const std::pair<LeftOut, bool> rows[] = {
            {LeftOut::kHardLinked, !is_directory && status.st_nlink >= 2},
            {LeftOut::kOwnArchive, options_.own == FileId(status.st_dev, status.st_ino)},
            {LeftOut::kTinker, is_directory && EndsWith(path_, "/com.tencent.mm/tinker")},
            {LeftOut::kLib, is_directory && is_top && name == "lib"},
            {LeftOut::kLink, type == S_IFLNK},
            {LeftOut::kSpecial, type == S_IFSOCK || type == S_IFIFO ||
                                    (packs && (type == S_IFCHR || type == S_IFBLK))},
            {LeftOut::kDex,
             (type == S_IFREG || (!packs && !is_directory)) && EndsWith(name, ".dex")},
        };
        const auto* const row = std::find_if(std::begin(rows), std::end(rows), [this](auto& each) {
            return each.second && Has(each.first);
        });
        return row != std::end(rows) ? std::optional(row->first) : std::nullopt;
    }

    bool Has(LeftOut reason) const { return (options_.rules & Bit(reason)) != 0; }
    std::string_view Below() const {
        return std::string_view(path_).substr(options_.begin > 0 ? options_.begin : top_);
    }

    const WalkOptions& options_;
    const TreeSink& sink_;
    std::string path_;
    const size_t top_;  // the length of the top's path
};

}  // namespace

TallyEntry EntryOf(std::string_view path, const struct stat& status, Modes modes) {
    TallyEntry entry;
    entry.path = path;
    entry.type = S_ISREG(status.st_mode)   ? '0'
                 : S_ISDIR(status.st_mode) ? '5'
                 : S_ISLNK(status.st_mode) ? '2'
                                           : '3';
    entry.size = entry.type == '0' ? static_cast<uint64_t>(status.st_size) : 0;
    if (modes != Modes::kNone) {
        const uint32_t mode = status.st_mode & 07777;
        entry.mode = modes == Modes::kAll ? mode : ArchivedMode(entry.type, mode);
    }
    return entry;
}

std::string_view ReadLink(int directory, const char* name) {
    thread_local char buffer[PATH_MAX];
    const ssize_t length = readlinkat(directory, name, buffer, sizeof(buffer));
    return {buffer, static_cast<size_t>(length < 0 ? 0 : length)};
}

bool WalkTree(const std::string& top, const WalkOptions& options, const TreeSink& sink) {
    return Walk(top, options, sink).Directory(OpenDirectory(top));
}

}  // namespace peltexctl
