// The folder tar/: packing and unpacking, whole and in slices.
#include <host/log_capture.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>

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
        const std::string bytes = readFile(slice + std::to_string(number));
        for (size_t at = 0; bytes.compare(at + offsetof(tar_header, magic), 5, "ustar") == 0;) {
            const std::string digits = bytes.substr(at + offsetof(tar_header, size), 12);
            const size_t content = std::stoul(digits, nullptr, 8);
            result += std::string(" ") + bytes[at + offsetof(tar_header, typeflag)] + ":" +
                      std::to_string(content);
            at += kBlock + (content + kBlock - 1) / kBlock * kBlock;
        }
        result += " |";
    }
    return result + (isLastGone ? " end | " : " ") + readFile(slice + "txt");
}

}  // namespace

void addArchiveCommands(Transcript& t) {
    const auto listener = std::make_shared<Listener>(t);
    t.commands["pack"] = [listener](const Lines& words) {
        const bool isHeard = words.size() < 3;
        TarFile packer(isHeard ? listener.get() : nullptr);
        const bool result = packer.PackDir(words.at(0).c_str(), words.at(1).c_str());
        return result ? "= " + packedIn(readFile(words[1])) : exists(words[1]) ? "= left" : "=";
    };
    t.commands["unpack"] = [listener, &t](const Lines& words) {
        const std::string path = t.tree / "a.tar";
        writeFile(path, archiveOf(words));
        UnTarFile archive(path.c_str(), listener.get());
        return "= " + std::to_string(archive.UnPack((t.tree / "to").c_str(), 10123));
    };
    t.commands["list"] = [&t](const Lines& words) {
        const std::string path = t.tree / "a.tar";
        writeFile(path, archiveOf(words));
        UnTarFile archive(path.c_str(), nullptr);
        archive.GetFileNames();
        std::string names = "=";
        for (const std::string& name : archive.GetFileNames()) {
            names += " " + name;
        }
        return names;
    };
    // In slices of so many MiB.
    t.commands["split"] = [listener, &t](const Lines& words) {
        const std::string all[TarFile::kSplitArguments] = {"", "", "", "", words.at(0), "info"};
        TarFile packer(listener.get(), 1);
        const bool result = packer.PackSplitDir(t.tree / "src", t.tree / "out/s", all, 10123);
        return result ? "= true" : "=";
    };
    t.commands["cut"] = [&t](const Lines& words) { return cut(t, words); };
    // By a check file of this text.
    t.commands["unsplit"] = [listener, &t](const Lines& words) {
        const std::string path = t.tree / "out/s.txt";
        writeFile(path, words.at(0));
        UnTarFile set(path.c_str(), listener.get());
        return "= " + std::to_string(set.UnSplitPack((t.tree / "to/x").c_str(), 10123));
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
    // The size of a slice, of what a command says it is in MiB.
    t.commands["slice"] = [](const Lines& words) {
        const std::string all[TarFile::kSplitArguments] = {"", "", "", "", words.at(0)};
        const android::host::LogCapture log;
        const std::string size = std::to_string(PackSplitPre("x", all, 0).size);
        return "= " + size + (log.lines().empty() ? "" : ", logged");
    };
    // The line of a check file, for an archive's path, a size and a number.
    t.commands["line"] = [](const Lines& words) {
        return "= " + HandleSplitInfo(words.at(0), std::stoull(words.at(1)),
                                      static_cast<unsigned>(std::stoul(words.at(2))));
    };
}

namespace {

TEST(TarFile, RefusesNullPaths) {
    const TempTree tree;
    const std::string archive = tree / "a.tar";
    writeFile(archive, "");
    const std::string words[TarFile::kSplitArguments];
    EXPECT_FALSE(TarFile(nullptr).PackDir(nullptr, archive.c_str()));
    EXPECT_FALSE(TarFile(nullptr).PackDir(tree.path().c_str(), nullptr));
    EXPECT_FALSE(TarFile(nullptr).PackSplitDir(tree.path(), tree / "s", words, 0))
        << "what is made for one whole";
    EXPECT_EQ(UnTarFile(nullptr, nullptr).UnPack(tree.path().c_str(), 0), -1);
    EXPECT_EQ(UnTarFile((tree / "none").c_str(), nullptr).UnPack(tree.path().c_str(), 0), -1);
    EXPECT_EQ(UnTarFile(archive.c_str(), nullptr).UnPack(nullptr, 0), -2);
    EXPECT_EQ(UnTarFile(archive.c_str(), nullptr).UnSplitPack(nullptr, 0), -2);
    EXPECT_EQ(PackSplitPre("x/", std::vector<std::string>(7).data(), 0).basePath, "x");
}

TEST(EntryHeaders, FindLinksThatChangeBetweenTwoLooks) {
    const TempTree tree;
    TarStream stream;
    const std::string root = tree.path();
    EntryHeaders headers(stream, root);
    plant(root, {"l>xyz"});
    for (const off_t size : {off_t{2}, off_t{3}, off_t{0xFFFFFFFF}}) {
        struct stat status = {};
        status.st_size = size;
        tar_header header = {};
        EXPECT_EQ(headers.fillLink(Place((root + "/l").c_str()), status, header), size == 3);
        EXPECT_FALSE(headers.fillLink(Place((root + "/none").c_str()), status, header));
    }
}

// The padding is counted in 32 bits with a sign.
TEST(TarStream, PadsLargeFiles) {
    const TempTree tree;
    TarStream stream;
    ASSERT_TRUE(stream.open((tree / "f").c_str()));
    for (const auto& [size, padding] : {std::pair(0x80000001L, 0), std::pair(0x100000001L, 511)}) {
        const long before = stream.fileBytes();
        EXPECT_TRUE(stream.completeContent(size));
        EXPECT_EQ(stream.fileBytes() - before, padding);
    }
}

}  // namespace
}  // namespace peltex_test
