// The commands of archives.md.
#include <host/log_capture.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <utility>

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

// Tells a transcript what the packer and the extractor tell.
class Listener : public TarCallBack {
  public:
    explicit Listener(Transcript& transcript) : mTranscript(transcript) {}

    bool IsAborted() override { return mTranscript.isAborted; }
    void OnTaskProgress(unsigned long bytes) override {
        mTranscript.hear("progress " + std::to_string(bytes));
    }
    void OnPackagedOneSplitTar(const char* slice) override { mTranscript.hear("slice "s + slice); }
    void WaitTaskLocked() override { mTranscript.hear("wait"); }

  private:
    Transcript& mTranscript;
};

// "TYPE NAME SIZE" of each header, "TYPE TEXT" of each long-name record, up to what is no header.
Lines headersOf(const std::string& archive) {
    Lines headers;
    for (size_t at = 0; at + kBlock <= archive.size() &&
                        archive.compare(at + offsetof(tar_header, magic), 5, "ustar") == 0;) {
        const std::string name = archive.substr(at, 100).c_str();
        const std::string digits = archive.substr(at + offsetof(tar_header, size), 12);
        const size_t size = std::stoul(digits, nullptr, 8);
        const char type = archive[at + offsetof(tar_header, typeflag)];
        const bool isRecord = type == 'L' || type == 'K';
        headers.push_back(std::string{type, ' '} + (isRecord ? archive.c_str() + at + kBlock
                                                             : name + " " + std::to_string(size)));
        at += kBlock + (size + kBlock - 1) / kBlock * kBlock;
    }
    return headers;
}

// Packs files of these sizes, in the order of the walk, in slices of 1 MiB. Returns the types and
// sizes in each slice and the check file.
std::string cut(Transcript& t, const Lines& words) {
    t.commands["plant"]({"src/", "out/"});
    const std::string source = t.tree / "src/";
    const std::string slice = t.tree / "out/s.";
    const size_t length = std::stoul(words.at(0));  // of each name
    for (size_t i = 1; i < words.size(); ++i) {
        writeFile(source + std::string(length - 1, 'n') + std::to_string(i), "");
    }
    auto size = words.begin();
    for (const auto& file : std::filesystem::directory_iterator(source)) {
        std::filesystem::resize_file(file, std::stoul(*++size));
    }
    t.commands["split"]({"1"});
    const bool isLastGone = std::count(t.events.begin(), t.events.end(), "slice end") == 1;
    t.events.clear();
    std::string result = "=";
    for (int number = 0; exists(slice + std::to_string(number)); ++number) {
        for (const std::string& header : headersOf(readFile(slice + std::to_string(number)))) {
            result += std::string(" ") + header[0] + ":" + header.substr(header.rfind(' ') + 1);
        }
        result += " |";
    }
    return result + (isLastGone ? " end | " : " ") + readFile(slice + "txt");
}

// The headers of an archive, sorted, and its size.
std::string listed(const std::string& archive) {
    Lines headers = headersOf(archive);
    std::sort(headers.begin(), headers.end());
    headers.push_back(std::to_string(archive.size()));
    return joined(headers, ", ");
}

// What stands in each entry, with the long-name records before it, at which offsets; sorted.
Lines dumped(const std::string& archive) {
    Lines entries;
    std::string text;
    for (size_t at = 0, next; at < archive.size(); at = next) {
        next = at + kBlock;
        while (next < archive.size() && archive.compare(next + 257, 5, "ustar") != 0) {
            next += kBlock;
        }
        for (size_t i = at; i < next; ++i) {
            const std::string run = archive.substr(i, std::min(archive.find('\0', i), next) - i);
            text += run.empty() ? "" : std::to_string(i - at) + ":" + run + " ";
            i += run.size();
        }
        if (archive[at + 156] != 'K' && archive[at + 156] != 'L') {
            text.pop_back();
            entries.push_back(std::exchange(text, ""));
        }
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

}  // namespace

void addArchiveCommands(Transcript& t) {
    const auto listener = std::make_shared<Listener>(t);
    t.commands["pack"] = [listener](const Lines& words) {
        TarFile packer(words.size() < 3 ? listener.get() : nullptr);
        const bool result = packer.PackDir(pathOf(words.at(0)), pathOf(words.at(1)));
        return result ? "= " + listed(readFile(words[1])) : exists(words[1]) ? "= left" : "=";
    };
    t.commands["dump"] = [&t](const Lines& words) {
        t.events = dumped(readFile(words.at(0)));
        return "";
    };
    t.commands["untar"] = [listener](const Lines& words) {
        UnTarFile archive(pathOf(words.at(0)), listener.get());
        return "= " + std::to_string(archive.UnPack(pathOf(words.at(1)), 10123));
    };
    t.commands["unpack"] = [&t](const Lines& words) {
        writeFile(t.tree / "a.tar", archiveOf(words));
        return t.commands["untar"]({t.tree / "a.tar", t.tree / "to"});
    };
    t.commands["list"] = [&t](const Lines& words) {
        writeFile(t.tree / "a.tar", archiveOf(words));
        UnTarFile archive((t.tree / "a.tar").c_str(), nullptr);
        archive.GetFileNames();
        return "= " + joined(archive.GetFileNames(), " ");
    };
    // In slices of so many MiB; by a packer of whole archives.
    t.commands["split"] = [listener, &t](const Lines& words) {
        const std::string all[TarFile::kSplitArguments] = {"", "", "", "", words.at(0), "info"};
        TarFile whole(listener.get());
        TarFile sliced(listener.get(), 1);
        TarFile& packer = words.size() > 1 ? whole : sliced;
        const bool result = packer.PackSplitDir(t.tree / "src", t.tree / "out/s", all, 10123);
        return result ? "= true" : "=";
    };
    t.commands["cut"] = [&t](const Lines& words) { return cut(t, words); };
    // By a check file of this text.
    t.commands["unsplit"] = [listener, &t](const Lines& words) {
        const std::string path = t.tree / "out/s.txt";
        writeFile(path, words.at(0));
        UnTarFile set(path.c_str(), listener.get());
        const std::string to = words.size() > 1 ? words[1] : t.tree / "to/x";
        return "= " + std::to_string(set.UnSplitPack(pathOf(to), 10123));
    };
    // The octal number of a text, at an offset of a header that is filled with a byte. On the heap,
    // so that a read behind the header shows.
    t.commands["octal"] = [](const Lines& words) {
        const auto block = std::make_unique<TarBlock>();
        memset(&block->header, words.at(0)[0], sizeof(block->header));
        char* text = reinterpret_cast<char*>(&block->header) + std::stoul(words.at(1));
        memcpy(text, words.at(2).data(), words[2].size());
        std::ostringstream number;
        number << std::oct << ParseOctalStr(text, 8);
        return "= " + number.str();
    };
    // What slices are named by, from a path that ends in a slash, and the size of one, from what a
    // command says it is in MiB.
    t.commands["slice"] = [](const Lines& words) {
        const std::string all[TarFile::kSplitArguments] = {"", "", "", "", words.at(0)};
        const android::host::LogCapture log;
        const auto options = PackSplitPre("x/", all, 0);
        return "= " + options.basePath + " " + std::to_string(options.size) +
               (log.lines().empty() ? "" : ", logged");
    };
    // The line of a check file, for an archive's path, a size and a number.
    t.commands["line"] = [](const Lines& words) {
        return "= " + HandleSplitInfo(words.at(0), std::stoull(words.at(1)),
                                      static_cast<unsigned>(std::stoul(words.at(2))));
    };
    // What a link is packed as whose target had so many bytes a while ago.
    t.commands["target"] = [&t](const Lines& words) {
        TarStream stream;
        const std::string root = t.tree.path();
        struct stat status = {};
        status.st_size = std::stol(words.at(1));
        tar_header header = {};
        const bool isFilled =
            EntryHeaders(stream, root).fillLink(Place(words.at(0).c_str()), status, header);
        return isFilled ? std::string("= ") + header.linkname : "=";
    };
    // The bytes behind a content of so many: counted in 32 bits with a sign.
    t.commands["padding"] = [&t](const Lines& words) {
        TarStream stream;
        const bool isDone = stream.open((t.tree / "padded").c_str()) &&
                            stream.completeContent(std::stol(words.at(0)));
        return isDone ? "= " + std::to_string(stream.fileBytes()) : "=";
    };
}

}  // namespace peltex_test
