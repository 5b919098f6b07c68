// Tested by tests/client/peltexctl.md.
#include "archive/sums.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <nettle/nettle-meta.h>
#include <nettle/sha2.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "archive/new_file.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

using namespace android::installd;

namespace {

constexpr char kNoSum[] = "no sum can be made of it";

// The sum of all of the file in hexadecimal; empty when it cannot be read. Nettle is loaded where a
// sum is wanted: most runs want none, and it is there for no other processor than this machine's.
std::string SumOf(const ArchiveFile& file) {
    static void* const nettle = dlopen("libnettle.so.8", RTLD_NOW);
    const auto* const sha256 = static_cast<const nettle_hash*>(
        nettle == nullptr ? nullptr : dlsym(nettle, "nettle_sha256"));
    if (sha256 == nullptr) {
        return "";
    }
    sha256_ctx context;
    sha256->init(&context);
    std::vector<unsigned char> buffer(size_t{64} << 10);
    ssize_t count = 0;
    for (uint64_t offset = 0; (count = file.Read(offset, buffer.data(), buffer.size())) > 0;
         offset += static_cast<uint64_t>(count)) {
        sha256->update(&context, static_cast<size_t>(count), buffer.data());
    }
    char sum[SHA256_DIGEST_SIZE];
    sha256->digest(&context, sizeof(sum), reinterpret_cast<unsigned char*>(sum));
    return count == 0 ? Hexadecimal({sum, sizeof(sum)}) : "";
}

// Which of the set's files this is: a slice, or behind these the check file; nothing for others.
std::optional<size_t> IndexOf(const ArchiveSet& set, const std::string& name) {
    if (set.is_check_file() && name == set.name()) {
        return set.size();
    }
    const auto number = ParseNumber<size_t>(std::string_view(name).substr(name.rfind('.') + 1));
    const size_t index = set.is_check_file() ? number.value_or(0) : 0;
    return index < set.size() && set.NameOf(index) == name ? std::optional(index) : std::nullopt;
}

}  // namespace

std::string SumsName(const std::string& name) {
    const bool is_of_set = NamesSlice(name) || EndsWith(name, ".txt");
    return name.substr(0, is_of_set ? name.rfind('.') : name.size()) + ".sha256";
}

void Summer::Add(int directory, const std::string& name) {
    const std::string path = path_ + "/" + name;
    const ArchiveFile file(directory, name, O_NOFOLLOW);
    Ensure(file.fault().empty(), fmt::format("{}: {}", path, file.fault()));
    fstat(file.fd(), &last_);
    if (lines_.valid()) {
        lines_.wait();
    }
    // Where no thread can be started, the sum is made when it is waited for.
    lines_ = std::async(std::launch::async | std::launch::deferred, [before = std::move(lines_),
                                                                     file, name, path]() mutable {
        std::string lines = before.valid() ? before.get() : "";
        const std::string sum = SumOf(file);
        Ensure(!sum.empty(), fmt::format("{}: {}", path, kNoSum));
        Ensure(name.find('\n') == std::string::npos, path + ": no sums are kept of such a name");
        lines += fmt::format("{}  {}\n", sum, name);
        return lines;
    });
}

void Summer::Finish(int directory, const std::string& name) {
    const std::string lines = lines_.get();
    NewFile file;
    Require(
        file.Create(directory, name) &&
            write(file.fd(), lines.data(), lines.size()) == static_cast<ssize_t>(lines.size()) &&
            fchown(file.fd(), last_.st_uid, last_.st_gid) == 0 && file.Finish(last_.st_mode & 0777),
        fmt::format("{}/{}: cannot be written", path_, name));
}

void CheckSums(const ArchiveSet& set, const FindingSink& sink) {
    const auto fault = [&sink](const std::string& of, const std::string& message) {
        sink({Severity::kFault, of, "", message});
    };
    const std::string name = SumsName(set.name());
    if (faccessat(set.directory(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    const ArchiveFile file(set.directory(), name, O_NOFOLLOW);
    if (!file.fault().empty()) {
        return fault(name, file.fault());
    }
    const UniqueFile stream = file.Stream();
    std::vector<bool> is_summed(set.size() + (set.is_check_file() ? 1 : 0));
    // An archive and a set of one name share the file: the last that was written has it.
    bool is_of_another = false;
    char line[8192] = {};
    while (stream != nullptr && fgets(line, sizeof(line), stream.get()) != nullptr) {
        constexpr size_t kDigits = size_t{2} * SHA256_DIGEST_SIZE;
        const std::string_view text(line);
        const std::string_view mark = text.substr(std::min(kDigits, text.size()), 2);
        if (text.find_first_not_of("0123456789abcdef") != kDigits ||
            (mark != "  " && mark != " *")) {
            return fault(name, "a line is not a sum and the name of a file");
        }
        std::string of(text.substr(kDigits + 2));
        of.erase(of.find_last_not_of('\n') + 1);
        const std::optional<size_t> index = IndexOf(set, of);
        if (!index) {
            is_of_another = true;
            continue;
        }
        is_summed[*index] = true;
        const bool is_slice = *index < set.size();
        const ArchiveFile summed = is_slice ? set.OpenSlice(*index) : set.file();
        // That it has another size than its check file says, or is not there, is told elsewhere.
        if (summed.fault().empty() && (!is_slice || summed.size() == set.SizeOf(*index))) {
            const std::string sum = SumOf(summed);
            if (sum != text.substr(0, kDigits)) {
                fault(of, sum.empty() ? kNoSum : "its bytes are not those of its sum");
            }
        }
    }
    const bool has_none = std::count(is_summed.begin(), is_summed.end(), true) == 0;
    for (size_t i = 0; !(is_of_another && has_none) && i < is_summed.size(); i++) {
        if (!is_summed[i]) {
            fault(i < set.size() ? set.NameOf(i) : set.name(), "has no sum in " + name);
        }
    }
}

}  // namespace peltexctl
