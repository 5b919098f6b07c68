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

using namespace std::string_literals;

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
            return makeFifo(path);
        case '!':
            return makeSocket(path);
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
    char mark[64] = "";
    const mode_t mode = status.st_mode & 07777;
    const mode_t usual = S_ISDIR(status.st_mode) ? 0755 : S_ISLNK(status.st_mode) ? 0777 : 0644;
    if (status.st_uid != 0 || status.st_gid != 0) {
        snprintf(mark, sizeof(mark), "[%u:%u,%o]", status.st_uid, status.st_gid, mode);
    } else if (mode != usual) {
        snprintf(mark, sizeof(mark), "[%o]", mode);
    }
    return mark == kTaskOwned ? "*" : mark == kArchiveOwned ? "+" : mark;
}

}  // namespace

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

std::string shown(const std::string& root) {
    std::string text;
    for (const std::string& name : listTree(root)) {
        const std::string path = root + "/" + name.substr(0, name.find_last_not_of('/') + 1);
        const struct stat status = statOf(path);
        text += (text.empty() ? "" : " ") + name + markOf(status) +
                (S_ISREG(status.st_mode)    ? wordOf(readFile(path))
                 : S_ISLNK(status.st_mode)  ? ">" + std::filesystem::read_symlink(path).string()
                 : S_ISFIFO(status.st_mode) ? "|"
                 : S_ISSOCK(status.st_mode) ? "!"
                                            : "");
    }
    return text;
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
            for (std::string option : word.options) {
                std::replace(option.begin(), option.end(), '_', ' ');
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

std::string packedIn(const std::string& archive) {
    std::vector<std::string> words;
    std::string records;
    size_t at = 0;
    while (at < archive.size() && archive[at] != '\0') {
        const std::string block = archive.substr(at, kBlock);
        const auto field = [&](size_t offset, size_t size) {
            const std::string text = block.substr(offset, size);
            return text.substr(0, text.find('\0'));
        };
        const auto number = [&](size_t offset, size_t size) {
            return std::stoul("0" + field(offset, size), nullptr, 8);
        };
        const auto nameOf = [](unsigned long id) {
            return id < 3 ? std::string(id == 0   ? "root"
                                        : id == 1 ? "daemon"
                                                  : "bin")
                          : std::to_string(id);
        };
        const char type = block[156];
        const bool isRecord = type == 'L' || type == 'K';
        const auto uid = static_cast<unsigned>(number(108, 8));
        const auto gid = static_cast<unsigned>(number(116, 8));
        const auto mode = static_cast<unsigned>(number(100, 8));
        const unsigned long size = number(124, 12), time = number(136, 12);
        const std::string link = field(157, 100);
        Header header(type, field(0, 100), size);
        header.mode(mode).owner(uid, gid).put(136, octal(time, 11)).link(link).put(263, "0");
        if (!isRecord) {
            header.put(265, nameOf(uid)).put(297, nameOf(gid));
        }
        at += kBlock;
        const std::string data = archive.substr(at, size);
        struct stat status = {};
        status.st_uid = uid;
        status.st_gid = gid;
        status.st_mode = static_cast<mode_t>(mode) | (type == '5'   ? S_IFDIR
                                                      : type == '2' ? S_IFLNK
                                                                    : S_IFREG);
        std::string word = std::string{type, ':'};
        if (header.bytes() != block || archive.substr(at, padded(data).size()) != padded(data)) {
            for (const size_t offset : {0U, 100U, 108U, 116U, 124U, 136U, 265U, 297U}) {
                word += field(offset, offset == 0    ? 100
                                      : offset < 124 ? 8
                                      : offset < 265 ? 12
                                                     : 32) +
                        ",";
            }
        } else if (isRecord) {
            word += data.c_str();
        } else {
            word += field(0, 100) + markOf(status) +
                    (time == 0 ? "" : "{" + std::to_string(time) + "}") +
                    (type == '2'   ? ">" + link
                     : type == '5' ? ""
                                   : wordOf(data));
        }
        records += (records.empty() ? "" : " ") + word;
        if (!isRecord) {
            words.push_back(records);
            records.clear();
        }
        at += padded(data).size();
    }
    std::sort(words.begin(), words.end());
    words.push_back(archive.substr(std::min(at, archive.size())) == kEndBlocks ? "end" : "no end");
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

}  // namespace peltex_test
