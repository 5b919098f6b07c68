// Tested by tests/peltexctl/test_archives.py.
#include "archive/set.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "archive/reader.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using android::installd::kBlockSize;
using android::installd::tar_header;

// A restore takes a check file's lines in pieces of this size.
constexpr size_t kMaxLine = 2046;
constexpr uint64_t kMaxCheckFile = 16 << 20;

bool IsDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string LastComponent(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool IsArchive(const std::string& content) {
    if (content.empty() || content[0] == '\0') {
        return true;
    }
    constexpr size_t kMagic = offsetof(tar_header, magic);
    if (content.size() > kMagic && content.compare(kMagic, 5, "ustar") == 0) {
        return true;
    }
    const std::string_view line = std::string_view(content).substr(0, content.find('\n'));
    const size_t bar = line.rfind('|');
    return bar == std::string_view::npos || !IsDigits(line.substr(bar + 1, 1));
}

bool NamesSlice(const std::string& path) {
    const size_t dot = path.rfind('.');
    return dot != std::string::npos && IsDigits(std::string_view(path).substr(dot + 1));
}

class CheckFile {
  public:
    CheckFile(const FindingSink& sink, ArchiveSet* set)
        : sink_(sink), set_(set), directory_(DirectoryOf(set->path)) {}

    void Parse(std::string_view content) {
        while (!content.empty()) {
            const size_t end = std::min(content.find('\n'), content.size() - 1) + 1;
            const std::string_view line = content.substr(0, std::min(end, kMaxLine));
            TakeLine(line);
            content.remove_prefix(line.size());
        }
        if (set_->slices.empty()) {
            Tell(Finding::Severity::kFault, "", "lists no slice");
        } else {
            LookForMore();
        }
    }

  private:
    static std::string DirectoryOf(const std::string& path) {
        const size_t slash = path.rfind('/');
        return slash == std::string::npos ? "" : path.substr(0, slash + 1);
    }

    void Tell(Finding::Severity severity, const std::string& slice, const std::string& message) {
        sink_({severity, slice.empty() ? LastComponent(set_->path) : slice, "", message});
    }

    void TakeLine(std::string_view line) {
        const size_t bar = line.rfind('|');
        const std::string size_text(line.substr(std::min(bar, line.size() - 1) + 1));
        char* end = nullptr;
        errno = 0;
        // Any base that a number can be written in, as a restore takes it.
        const long long size = std::strtoll(size_text.c_str(), &end, 0);
        if (bar == std::string_view::npos || end == size_text.c_str() || errno != 0 || size < 0 ||
            bar == 0) {
            std::string shown(line);
            shown.erase(shown.find_last_not_of('\n') + 1);
            Tell(Finding::Severity::kFault, "",
                 fmt::format("the line \"{}\" is not NAME|SIZE", shown));
            return;
        }
        const std::string name(line.substr(0, bar));
        CheckName(name);
        set_->slices.push_back({directory_ + name, name, static_cast<uint64_t>(size)});
    }

    // Slices are numbered from 0 on; what lies elsewhere is no slice of this set.
    void CheckName(const std::string& name) {
        if (set_->slices.empty()) {
            base_ = name.substr(0, name.rfind('.'));
        }
        const std::string expected = SliceName(set_->slices.size());
        if (name != expected) {
            Tell(Finding::Severity::kFault, name,
                 fmt::format("listed where {} should be", expected));
        }
        if (name.find('/') != std::string::npos) {
            Tell(Finding::Severity::kWarning, name, "lies outside the set's directory");
        }
    }

    void LookForMore() {
        const std::string next = SliceName(set_->slices.size());
        if (access((directory_ + next).c_str(), F_OK) == 0) {
            Tell(Finding::Severity::kWarning, next, "is there but not listed");
        }
    }

    std::string SliceName(size_t number) const { return fmt::format("{}.{}", base_, number); }

    const FindingSink& sink_;
    ArchiveSet* set_;
    const std::string directory_;
    std::string base_;
};

}  // namespace

bool OpenArchiveSet(const std::string& path, const FindingSink& sink, ArchiveSet* set,
                    std::string* error) {
    const std::optional<ArchiveFile> file = ArchiveFile::Open(path, error);
    if (!file) {
        return false;
    }
    *set = {ArchiveSet::Kind::kArchive, path, {}};
    std::string content(std::min<uint64_t>(file->size(), kMaxLine), '\0');
    if (!file->ReadAt(0, content.data(), content.size())) {
        *error = fmt::format("cannot read {}", path);
        return false;
    }
    if (IsArchive(content)) {
        if (NamesSlice(path)) {
            set->kind = ArchiveSet::Kind::kSlice;
        }
        set->slices.push_back({path, LastComponent(path), 0});
        return true;
    }
    if (file->size() > kMaxCheckFile) {
        *error = fmt::format("{} is neither an archive nor a check file", path);
        return false;
    }
    set->kind = ArchiveSet::Kind::kCheckFile;
    content.resize(static_cast<size_t>(file->size()));
    if (!file->ReadAt(0, content.data(), content.size())) {
        *error = fmt::format("cannot read {}", path);
        return false;
    }
    CheckFile(sink, set).Parse(content);
    return true;
}

}  // namespace peltexctl
