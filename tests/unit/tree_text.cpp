#include "tests/unit/tree_text.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/jail.h"
#include "tests/support/tar_builder.h"

namespace peltex_test {
namespace {

const std::string kTaskOwned = "[10123:10123,771]";
const std::string kArchiveOwned = "[10123:10123,660]";

// A word taken apart: "f[1:2,3]{4}{5}=6" is "f", "1:2,3", {"4", "5"}, '=', "6".
struct Word {
    std::string name;
    std::string mark;
    std::vector<std::string> options;
    char kind = '/';
    std::string rest;

    explicit Word(const std::string& text) {
        size_t at = std::min(text.find_first_of("[{*+=>|!&"), text.size());
        name = text.substr(0, at);
        if (text[at] == '*' || text[at] == '+') {
            mark = text[at++] == '*' ? kTaskOwned : kArchiveOwned;
        } else if (text[at] == '[') {
            mark = text.substr(at, text.find(']') + 1 - at);
            at += mark.size();
        }
        for (; text[at] == '{'; at = text.find('}', at) + 1) {
            options.push_back(text.substr(at + 1, text.find('}', at) - at - 1));
        }
        if (at < text.size()) {
            kind = text[at];
            rest = text.substr(at + 1);
        }
    }

    // Of "[UID:GID,MODE]" or "[MODE]"; the mode is `mode` without a mark.
    void readMark(unsigned& uid, unsigned& gid, unsigned& mode) const {
        if (sscanf(mark.c_str(), "[%u:%u,%o]", &uid, &gid, &mode) != 3) {
            uid = 0;
            sscanf(mark.c_str(), "[%o]", &mode);
        }
    }
    std::string content() const {
        return rest[0] == '#' ? std::string(std::stoul(rest.substr(1)), 'c') : rest;
    }
};

void makeEntry(const std::string& root, const Word& word) {
    const std::string path = root + "/" + word.name;
    switch (word.kind) {
        case '=':
            return writeFile(path, word.content());
        case '>':
            return makeLink(word.rest, path);
        case '|':
            return makeNode(path, S_IFIFO);
        case '!':
            return makeNode(path, S_IFSOCK);
        case '&':
            makeDir(std::filesystem::path(path).parent_path());
            return std::filesystem::create_hard_link(root + "/" + word.rest, path);
        default:
            return makeDir(path);
    }
}

std::string wordOf(const std::string& content) {
    const bool isWord = content.size() < 64 && std::all_of(content.begin(), content.end(), isgraph);
    return "=" + (isWord ? content : "#" + std::to_string(content.size()));
}

std::string markOf(const struct stat& status) {
    const mode_t mode = status.st_mode & 07777;
    const mode_t usual = S_ISDIR(status.st_mode) ? 0755 : S_ISLNK(status.st_mode) ? 0777 : 0644;
    char mark[64] = "";
    if (status.st_uid != 0 || status.st_gid != 0) {
        snprintf(mark, sizeof(mark), "[%u:%u,%o]", status.st_uid, status.st_gid, mode);
    } else if (mode != usual) {
        snprintf(mark, sizeof(mark), "[%o]", mode);
    }
    return mark == kTaskOwned ? "*" : mark == kArchiveOwned ? "+" : mark;
}

}  // namespace

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string text;
    for (const std::string& word : words) {
        text += (&word == &words[0] ? "" : separator) + word;
    }
    return text;
}

void plant(const std::string& root, const std::vector<std::string>& words) {
    for (const std::string& text : words) {
        const Word word(text);
        makeEntry(root, word);
        unsigned uid = 0, gid = 0, mode = 0;
        word.readMark(uid, gid, mode);
        const std::string path = root + "/" + word.name;
        if (!word.mark.empty() &&
            (lchown(path.c_str(), uid, gid) != 0 || chmod(path.c_str(), mode) != 0)) {
            fail("the test's own: %s", text.c_str());
        }
    }
    for (auto text = words.rbegin(); text != words.rend(); ++text) {
        const Word word(*text);
        const time_t time = word.options.empty() ? 0 : std::stol(word.options[0]);
        const timespec times[2] = {{time, 0}, {time, 0}};
        utimensat(AT_FDCWD, (root + "/" + word.name).c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
}

std::vector<std::string> shown(const std::string& root) {
    std::vector<std::string> words;
    for (const std::string& name : listTree(root)) {
        const std::string path = root + "/" + name.substr(0, name.find_last_not_of('/') + 1);
        const struct stat status = statOf(path);
        const mode_t mode = status.st_mode;
        words.push_back(name + markOf(status) +
                        (S_ISREG(mode)    ? wordOf(readFile(path))
                         : S_ISLNK(mode)  ? ">" + std::filesystem::read_symlink(path).string()
                         : S_ISFIFO(mode) ? "|"
                         : S_ISSOCK(mode) ? "!"
                                          : ""));
    }
    return words;
}

std::string archiveOf(const std::vector<std::string>& words) {
    std::string bytes;
    for (const std::string& text : words) {
        const size_t count = text.find('#');
        if (text == "end") {
            bytes += kEndBlocks;
        } else if (text[1] != ':') {
            bytes += std::string(std::stoul(text.substr(count + 1)), text[0] == 'z' ? '\0' : 'x');
        } else if ((text[0] == 'K' || text[0] == 'L') && text.find('{') == text.npos) {
            bytes += longRecord(text[0], text.substr(2));
        } else {
            const Word word(text.substr(2));
            unsigned uid = 0, gid = 0, mode = 0644;
            word.readMark(uid, gid, mode);
            const std::string content = word.kind == '=' ? word.content() : "";
            Header header(text[0] == '-' ? '\0' : text[0], word.name, content.size());
            header.mode(mode).owner(uid, gid).link(word.kind == '>' ? word.rest : "");
            int digits = 6;
            for (const std::string& option : word.options) {
                const size_t comma = option.find(',');
                comma == option.npos
                    ? void(digits = std::stoi(option))
                    : void(header.put(std::stoul(option), option.substr(comma + 1)));
            }
            bytes += header.bytes(digits) + padded(content);
        }
    }
    return bytes;
}

}  // namespace peltex_test
