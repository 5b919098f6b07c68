// Tested by tests/peltexctl/test_archives.py.
#include "archive/listing.h"

#include <fmt/format.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "ui/json.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using namespace android::installd;
using Severity = Finding::Severity;

struct TypeWords {
    char type;
    char letter;  // as `ls -l` begins a line
    const char* name;
};

constexpr TypeWords kTypeWords[] = {
    {TYPE_REGULAR, '-', ""},
    {TYPE_SYMLINK, 'l', ""},
    {TYPE_DIRECTORY, 'd', ""},
    {TYPE_FIRST_PART, '-', "first part"},
    {TYPE_MIDDLE_PART, '-', "middle part"},
    {TYPE_LAST_PART, '-', "last part"},
    {'1', 'h', "hard link"},
    {'3', 'c', "device"},
    {'4', 'b', "device"},
    {'6', 'p', "FIFO"},
    {'g', '?', "extended header"},
    {'x', '?', "extended header"},
    {'V', '?', "volume label"},
    {'\0', '?', "entry of an unknown type"},
};

const TypeWords& WordsOf(char type) {
    const TypeWords* row = kTypeWords;
    for (; row->type != type && row->type != '\0'; row++) {
    }
    return *row;
}

std::string ModeAsText(uint32_t mode, char letter) {
    std::string text(1, letter);
    for (size_t i = 0; i < 9; i++) {
        text += (mode & (0400U >> i)) != 0 ? "rwx"[i % 3] : '-';
    }
    for (size_t i = 0; i < 3; i++) {
        if (char& last = text[3 + 3 * i]; (mode & (04000U >> i)) != 0) {
            last = (last == 'x' ? "sst" : "SST")[i];
        }
    }
    return text;
}

std::string TimeAsText(uint64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    struct tm parts = {};
    char text[64] = {};
    if (localtime_r(&time, &parts) == nullptr ||
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &parts) == 0) {
        return fmt::format("{}", seconds);
    }
    return text;
}

}  // namespace

void PartJoiner::Take(const ArchiveEntry& entry, bool is_first) {
    if (cut_ && is_first && entry.Continues() && entry.name == cut_->name) {
        cut_->size += entry.size;
    } else {
        Finish();
        if (!joins_ || entry.type != TYPE_FIRST_PART) {
            visit_(entry);
            return;
        }
        cut_ = entry;
        cut_->type = TYPE_REGULAR;
    }
    if (!entry.FillsSlice()) {
        Finish();
    }
}

void PartJoiner::Finish() {
    if (cut_) {
        visit_(*cut_);
        cut_.reset();
    }
}

void ListSet(const ArchiveSet& set, const FindingSink& sink, const EntryVisitor& show) {
    PartJoiner joiner(set, show);
    for (size_t i = 0; i < set.size(); i++) {
        std::string error;
        const std::optional<ArchiveFile> file = set.OpenSlice(i, &error);
        if (!file) {
            sink({Severity::kFault, set.NameOf(i), "", error});
            continue;
        }
        ArchiveReader reader(*file);
        ArchiveEntry entry;
        for (bool is_first = true; reader.Next(&entry); is_first = false) {
            joiner.Take(entry, is_first);
        }
        if (reader.end() != ArchiveEnd::kEndBlocks) {
            sink({Severity::kFault, set.NameOf(i), entry.name, DescribeEnd(reader.end())});
        }
    }
    joiner.Finish();
}

const char* TypeName(char type) {
    return WordsOf(type).name;
}

std::string EntryAsText(const ArchiveEntry& entry) {
    const TypeWords& words = WordsOf(entry.type);
    const std::string note =
        *words.name == '\0'
            ? ""
            : fmt::format(" ({}{})", words.name, entry.IsRestored() ? "" : ", not restored");
    const std::string link = !entry.link.empty() ? " -> " + EscapeBytes(entry.link) : "";
    return fmt::format("{} {:>11} {:>10} {} {}{}{}", ModeAsText(entry.mode, words.letter),
                       fmt::format("{}/{}", entry.uid, entry.gid), HumanSize(entry.size),
                       TimeAsText(entry.mtime), EscapeBytes(entry.name), link, note);
}

std::string EntryAsJson(const ArchiveEntry& entry) {
    Json object = {{"event", "entry"},
                   {"type", BytesToUtf8({&entry.type, 1})},
                   {"mode", fmt::format("{:04o}", entry.mode)},
                   {"uid", entry.uid},
                   {"gid", entry.gid},
                   {"size", entry.size},
                   {"mtime", entry.mtime}};
    SetBytes(&object, "name", entry.name);
    if (!entry.link.empty()) {
        SetBytes(&object, "link", entry.link, "raw_link");
    }
    return JsonLine(object);
}

}  // namespace peltexctl
