// Tested by tests/client/peltexctl.md.
#include "archive/set.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

using namespace android::installd;

namespace {

// A restore takes longer lines, with their line feed, in pieces.
constexpr size_t kMaxLine = 2046;
constexpr size_t kMostSlices = 100000;
constexpr uint64_t kLargestCheckFile = 32 << 20;

// What has no header in front and a '|' in its first line, or the name of one.
bool IsCheckFile(std::string_view content, std::string_view name) {
    constexpr size_t kMagic = offsetof(tar_header, magic);
    if ((!content.empty() && content[0] == '\0') ||
        (content.size() > kMagic && content.substr(kMagic, 5) == "ustar")) {
        return false;
    }
    return name.substr(std::min(name.rfind('.'), name.size())) == ".txt" ||
           content.substr(0, content.find('\n')).find('|') != std::string_view::npos;
}

}  // namespace

std::string DescribeFinding(const Finding& finding) {
    std::vector<std::string> parts = {finding.slice, finding.entry, finding.message};
    parts.erase(std::remove(parts.begin(), parts.end(), ""), parts.end());
    return fmt::format("{}", fmt::join(parts, ": "));
}

bool NamesSlice(std::string_view name) {
    const size_t dot = name.rfind('.');
    return dot != std::string_view::npos && dot + 1 < name.size() &&
           name.find_first_not_of("0123456789", dot + 1) == std::string_view::npos;
}

// Takes a check file line by line, as a restore does. Returns what is wrong with it, in words, up
// to the first such line; empty when nothing is.
std::string ArchiveSet::ReadCheckFile() {
    const UniqueFile stream = file_.Stream();
    char line[kMaxLine + 1] = {};
    uint64_t taken = 0;
    while (stream != nullptr && fgets(line, sizeof(line), stream.get()) != nullptr) {
        std::string_view text = line;
        taken += text.size();
        const bool ends = !text.empty() && text.back() == '\n';
        text.remove_suffix(ends ? 1 : 0);
        const std::string fault =
            !ends && taken != file_.size()
                ? "has a NUL, or more than 2,046 bytes, so that a restore takes it in pieces"
            : size() == kMostSlices || taken > kLargestCheckFile
                ? "is more than 100,000 lines and 32 MiB can hold"
                : TakeLine(text);
        if (!fault.empty()) {
            return fmt::format("line {} {}", size() + 1, fault);
        }
    }
    return taken != file_.size() ? "cannot be read" : taken == 0 ? "lists no slice" : "";
}

std::string ArchiveSet::TakeLine(std::string_view line) {
    const size_t bar = std::min(line.rfind('|'), line.size());
    const std::string_view name = line.substr(0, bar);
    const std::string_view digits = line.substr(std::min(bar + 1, line.size()));
    const auto length = ParseNumber<int64_t>(digits);
    // Whatever else is a number to a restore, with a sign or zeros in front, is another one to it.
    if (!length || digits[0] == '-' || (digits[0] == '0' && digits.size() > 1) || name.empty()) {
        return fmt::format("is not NAME|SIZE with a size in plain decimal digits: {}",
                           line.substr(0, 300));
    }
    if (name.find('/') != std::string_view::npos) {
        return fmt::format("names a file elsewhere: {}", name);
    }
    if (ends_.empty()) {
        base_ = name.substr(0, name.rfind('.'));
    }
    // Slices are numbered from 0 on, so no name is there twice.
    if (const std::string expected = NameOf(size()); name != expected) {
        return fmt::format("lists {} where {} should be", name, expected);
    }
    ends_.push_back(TotalSize() + static_cast<uint64_t>(*length));
    return "";
}

ArchiveSet::ArchiveSet(const std::string& path, ProgressView* view)
    : path_(path),
      name_(path.substr(path.rfind('/') + 1)),
      directory_(DirectoryOf(path)),
      file_(directory(), name_, 0),
      view_(view) {
    std::string content(std::min<uint64_t>(file_.size(), kMaxLine), '\0');
    Ensure(file_.fault().empty(), path + ": " + file_.fault());
    Ensure(file_.ReadAt(0, content.data(), content.size()), path + ": cannot be read");
    if (!IsCheckFile(content, name_)) {
        kind_ = NamesSlice(name_) ? Kind::kSlice : Kind::kArchive;
        ends_ = {file_.size()};
    } else if (const std::string fault = ReadCheckFile(); !fault.empty()) {
        finding_ = {Severity::kFault, name_, "", fault};
        ends_.clear();
    } else if (const std::string next = NameOf(size());
               faccessat(directory(), next.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
        finding_ = {Severity::kSuspicion, next, "", "is there but not listed"};
    }
}

std::string ArchiveSet::NameOf(size_t index) const {
    return is_check_file() ? fmt::format("{}.{}", base_, index) : name_;
}

ArchiveFile ArchiveSet::OpenSlice(size_t index) const {
    ArchiveFile file =
        is_check_file() ? ArchiveFile(directory(), NameOf(index), O_NOFOLLOW) : file_;
    file.SetProgress(view_, BeginOf(index));
    return file;
}

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

void VisitEntries(const ArchiveSet& set, const FindingSink& sink, const EntryVisitor& visit) {
    if (set.finding()) {
        sink(*set.finding());
    }
    PartJoiner joiner(set, visit);
    for (size_t i = 0; i < set.size(); i++) {
        const ArchiveFile file = set.OpenSlice(i);
        if (!file.fault().empty()) {
            sink({Severity::kFault, set.NameOf(i), "", file.fault()});
            continue;
        }
        ArchiveReader reader(file);
        ArchiveEntry entry;
        for (bool is_first = true; reader.Next(&entry); is_first = false) {
            joiner.Take(entry, is_first);
        }
        if (!reader.has_end_blocks()) {
            sink({Severity::kFault, set.NameOf(i), entry.name, reader.fault()});
        }
    }
    joiner.Finish();
}

}  // namespace peltexctl
