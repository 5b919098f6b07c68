// Tested by tests/client/test_running.py and peltexctl.md.
#include "task/slice_taker.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "archive/new_file.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

SliceTaker::SliceTaker(const TaskRequest& request, std::function<void()> tick)
    : request_(request), tick_(std::move(tick)) {
    if (!request.take.empty()) {
        to_.Make(request.take, 0);
    }
}

void SliceTaker::Finish() {
    const std::string archive = NameOf(request_.source) + ".tar";
    Take(archive + ".txt");
    if (request_.sums) {
        summer_.Finish(held(), SumsName(archive));
    }
}

void SliceTaker::Take(const std::string& name) {
    const std::string failure =
        fmt::format("{}/{}: could not be taken to {}", request_.destination, name, directory());
    if (!from_.isOpen()) {
        from_ = OpenDirectory(request_.destination);
    }
    if (!request_.take.empty()) {
        if (renameat(from_.get(), name.c_str(), to_.fd().get(), name.c_str()) != 0) {
            Require(errno == EXDEV, failure);
            Copy(name, failure);
        }
        taken_ += NamesSlice(name) ? 1 : 0;
    }
    if (request_.sums) {
        summer_.Add(held(), name);
    }
}

// To another file system, where nothing has the name before all is there.
void SliceTaker::Copy(const std::string& name, const std::string& failure) {
    constexpr size_t kAtATime = 8 << 20;  // so that no single call takes long
    const ArchiveFile from(from_.get(), name, O_NOFOLLOW);
    Ensure(from.fault().empty(), failure + ": " + from.fault());
    struct stat status = {};
    NewFile to;
    Require(fstat(from.fd(), &status) == 0 && to.Create(to_.fd().get(), name), failure);
    ssize_t length = 0;
    while ((length = sendfile(to.fd(), from.fd(), nullptr, kAtATime)) > 0) {
        Require(fdatasync(to.fd()) == 0, failure);
        tick_();
    }
    Require(length == 0 && (fchown(to.fd(), status.st_uid, status.st_gid) == 0 || geteuid() != 0) &&
                to.Finish(status.st_mode & 0777) && unlinkat(from_.get(), name.c_str(), 0) == 0,
            failure);
}

std::string SliceTaker::DescribeLeft(uint64_t count) const {
    std::vector<std::string> places;
    for (const auto& [slices, place] :
         {std::pair(taken_, request_.take), std::pair(count - taken_, request_.destination)}) {
        if (slices > 0) {
            places.push_back(fmt::format("{} in {}", Counted(slices, "slice", "slices"), place));
        }
    }
    return count == 0
               ? "no slice is left"
               : fmt::format("{} {} left", fmt::join(places, " and "), count == 1 ? "is" : "are");
}

}  // namespace peltexctl
