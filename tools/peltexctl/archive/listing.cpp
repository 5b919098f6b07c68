// Tested by tests/peltexctl/test_archives.py.
#include "archive/listing.h"

#include <fmt/format.h>

#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "ui/text.h"

namespace peltexctl {

namespace {

using namespace android::installd;
using Severity = Finding::Severity;

struct TypeWords {
    char type;
    char letter;       // as `ls -l` begins a line
    const char* note;  // behind the name
};

constexpr TypeWords kTypeWords[] = {
    {TYPE_REGULAR, '-', ""},
    {TYPE_SYMLINK, 'l', ""},
    {TYPE_DIRECTORY, 'd', ""},
    {TYPE_FIRST_PART, '-', " (first part)"},
    {TYPE_MIDDLE_PART, '-', " (middle part)"},
    {TYPE_LAST_PART, '-', " (last part)"},
    {'1', 'h', " (hard link, not restored)"},
    {'3', 'c', " (device, not restored)"},
    {'4', 'b', " (device, not restored)"},
    {'6', 'p', " (FIFO, not restored)"},
};

constexpr TypeWords kOtherType = {'\0', '?', " (of a type that is not restored)"};

const TypeWords& WordsOf(char type) {
    for (const TypeWords& row : kTypeWords) {
        if (row.type == type) {
            return row;
        }
    }
    return kOtherType;
}

bool HasLink(const ArchiveEntry& entry) {
    return entry.type == TYPE_SYMLINK || entry.type == '1';
}

std::string ModeAsText(uint32_t mode, char letter) {
    constexpr char kBits[] = "rwxrwxrwx";
    std::string text(1, letter);
    for (uint32_t i = 0; i < 9; i++) {
        text += (mode & (0400U >> i)) != 0 ? kBits[i] : '-';
    }
    const auto mark = [&text, mode](uint32_t bit, size_t place, char with, char without) {
        if ((mode & bit) != 0) {
            text[place] = text[place] == 'x' ? with : without;
        }
    };
    mark(04000, 3, 's', 'S');
    mark(02000, 6, 's', 'S');
    mark(01000, 9, 't', 'T');
    return text;
}

std::string TimeAsText(uint64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    struct tm parts = {};
    char text[64] = {};
    // Years of more digits than the buffer holds are no years.
    if (localtime_r(&time, &parts) == nullptr ||
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &parts) == 0) {
        return fmt::format("{}", seconds);
    }
    return text;
}

class Lister {
  public:
    Lister(const ArchiveSet& set, const FindingSink& sink,
           const std::function<void(const ArchiveEntry&)>& show)
        : set_(set), sink_(sink), show_(show) {}

    void Run() {
        for (size_t i = 0; i < set_.slices.size(); i++) {
            ListSlice(i);
        }
    }

  private:
    void ListSlice(size_t index) {
        const ArchiveSet::Slice& slice = set_.slices[index];
        std::string error;
        const std::optional<ArchiveFile> file = ArchiveFile::Open(slice.path, &error);
        if (!file) {
            sink_({Severity::kFault, slice.name, "", error});
            return;
        }
        ArchiveReader reader(*file);
        ArchiveEntry entry;
        for (bool first = true; reader.Next(&entry); first = false) {
            ShowEntry(index, first, entry);
        }
        if (reader.end() != ArchiveEnd::kEndBlocks) {
            sink_({Severity::kFault, slice.name, entry.name, DescribeEnd(reader.end())});
        }
    }

    void ShowEntry(size_t index, bool first, ArchiveEntry entry) {
        const bool shown = first && entry.Continues() && cut_file_ == entry.name;
        if (!shown) {
            cut_file_.reset();
            if (set_.kind == ArchiveSet::Kind::kCheckFile && entry.type == TYPE_FIRST_PART) {
                cut_file_ = entry.name;
                entry.size = WholeSize(set_, index, entry);
                entry.type = TYPE_REGULAR;
            }
            show_(entry);
        }
    }

    const ArchiveSet& set_;
    const FindingSink& sink_;
    const std::function<void(const ArchiveEntry&)>& show_;
    std::optional<std::string> cut_file_;  // the file that the last entry shown is the front of
};

}  // namespace

uint64_t WholeSize(const ArchiveSet& set, size_t index, const ArchiveEntry& entry) {
    uint64_t size = entry.size;
    bool goes_on = entry.FillsSlice();
    for (size_t i = index + 1; goes_on && i < set.slices.size(); i++) {
        std::string error;
        const std::optional<ArchiveFile> file = ArchiveFile::Open(set.slices[i].path, &error);
        ArchiveEntry part;
        if (!file || !ArchiveReader(*file).Next(&part) || !part.Continues() ||
            part.name != entry.name) {
            break;
        }
        size += part.size;
        goes_on = part.FillsSlice();
    }
    return size;
}

void ListSet(const ArchiveSet& set, const FindingSink& sink,
             const std::function<void(const ArchiveEntry&)>& show) {
    Lister(set, sink, show).Run();
}

std::string EntryAsText(const ArchiveEntry& entry) {
    const TypeWords& words = WordsOf(entry.type);
    const std::string link = HasLink(entry) ? " -> " + EscapeBytes(entry.link) : "";
    return fmt::format("{} {:>11} {:>10} {} {}{}{}", ModeAsText(entry.mode, words.letter),
                       fmt::format("{}/{}", entry.uid, entry.gid), HumanSize(entry.size),
                       TimeAsText(entry.mtime), EscapeBytes(entry.name), link, words.note);
}

std::string EntryAsJson(const ArchiveEntry& entry) {
    nlohmann::ordered_json object = {{"event", "entry"},
                                     {"type", BytesToUtf8(std::string(1, entry.type))},
                                     {"mode", fmt::format("{:04o}", entry.mode)},
                                     {"uid", entry.uid},
                                     {"gid", entry.gid},
                                     {"size", entry.size},
                                     {"mtime", entry.mtime},
                                     {"name", BytesToUtf8(entry.name)}};
    if (HasLink(entry)) {
        object["link"] = BytesToUtf8(entry.link);
    }
    return object.dump(-1, ' ', true);
}

}  // namespace peltexctl
