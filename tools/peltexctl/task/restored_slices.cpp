// Tested by tests/peltexctl/test_signals.py.
#include "task/restored_slices.h"

#include <fmt/format.h>

#include <algorithm>

namespace peltexctl {

void RestoredSlices::Recover(const std::vector<std::string>& paths) {
    std::for_each(paths.begin(), paths.end(), KeptFiles::Recover);
}

void RestoredSlices::Keep(const std::vector<std::string>& paths) {
    if (std::all_of(paths.begin(), paths.end(),
                    [this](const std::string& path) { return kept_.Keep(path); })) {
        count_ = paths.size();
    } else {
        kept_.PutBack();
    }
}

std::string RestoredSlices::DescribeProgress() const {
    return are_kept() ? fmt::format("{} of {} slices", kept_.CountRemoved(), count_.load()) : "";
}

}  // namespace peltexctl
