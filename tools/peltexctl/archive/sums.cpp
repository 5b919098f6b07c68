// Tested by tests/peltexctl/test_sums.py.
#include "archive/sums.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "archive/new_file.h"
#include "ui/text.h"

namespace peltexctl {

using namespace android::installd;

namespace {

constexpr int kSumDigits = 64;
constexpr size_t kReadSize = size_t{64} << 10;
constexpr char kNoSum[] = "no sum can be made of it";

// The functions of OpenSSL, which is loaded where a sum is wanted: it takes more memory than all
// else.
void* FindFunction(const char* name) {
    static void* const library =
        dlopen(fmt::format("libcrypto.so.{}", OPENSSL_SHLIB_VERSION).c_str(), RTLD_NOW);
    return library == nullptr ? nullptr : dlsym(library, name);
}
#define OPENSSL_FUNCTION(name) reinterpret_cast<decltype(&(name))>(FindFunction(#name))

// The sum of all of the file in hexadecimal; empty when it cannot be read.
std::string SumOf(int fd) {
    const auto load = OPENSSL_FUNCTION(OPENSSL_init_crypto);
    const auto make = OPENSSL_FUNCTION(EVP_MD_CTX_new);
    const auto begin = OPENSSL_FUNCTION(EVP_DigestInit_ex);
    const auto update = OPENSSL_FUNCTION(EVP_DigestUpdate);
    const auto end = OPENSSL_FUNCTION(EVP_DigestFinal_ex);
    const auto sha256 = OPENSSL_FUNCTION(EVP_sha256);
    const auto free = OPENSSL_FUNCTION(EVP_MD_CTX_free);
    if (!load || !make || !begin || !update || !end || !sha256 || !free) {
        return "";
    }
    // Without its settings: a sum is the same on every machine.
    load(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    const std::unique_ptr<EVP_MD_CTX, decltype(free)> context(make(), free);
    std::vector<char> buffer(kReadSize);
    ssize_t count = context != nullptr && begin(context.get(), sha256(), nullptr) == 1 ? 1 : -1;
    for (off_t offset = 0; count > 0; offset += count) {
        count = pread(fd, buffer.data(), buffer.size(), offset);
        if (count > 0 && update(context.get(), buffer.data(), static_cast<size_t>(count)) != 1) {
            count = -1;
        }
    }
    unsigned char sum[EVP_MAX_MD_SIZE] = {};
    unsigned int size = 0;
    return count == 0 && end(context.get(), sum, &size) == 1
               ? Hexadecimal({reinterpret_cast<char*>(sum), size})
               : "";
}

// Which of the set's files this is: a slice, or behind these the check file; nothing for others.
std::optional<size_t> IndexOf(const ArchiveSet& set, const std::string& name) {
    if (set.is_check_file() && name == set.name()) {
        return set.size();
    }
    size_t index = 0;
    std::from_chars(name.data() + (name.rfind('.') + 1), name.data() + name.size(), index);
    index = set.is_check_file() ? index : 0;
    return index < set.size() && set.NameOf(index) == name ? std::optional(index) : std::nullopt;
}

// What is wrong with a file that should have this sum, in words; empty when nothing is. That it has
// another size than its check file says is told elsewhere.
std::string Compare(const ArchiveSet& set, size_t index, const std::string& expected) {
    std::string error;
    const auto slice = index < set.size() ? set.OpenSlice(index, &error) : set.file();
    if (!slice || (index < set.size() && slice->size() != set.SizeOf(index))) {
        return "";
    }
    const std::string sum = SumOf(slice->fd());
    return sum == expected ? "" : sum.empty() ? kNoSum : "its bytes are not those of its sum";
}

}  // namespace

std::string SumsName(const std::string& name) {
    const size_t dot = std::min(name.rfind('.'), name.size());
    const std::string last = name.substr(dot);
    const bool is_of_set =
        last == ".txt" || (last.size() > 1 && last.find_last_not_of("0123456789") == 0);
    return name.substr(0, is_of_set ? dot : name.size()) + ".sha256";
}

std::string Summer::Add(int directory, const std::string& name) {
    Collect();
    name_ = name;
    std::string error;
    const auto file = ArchiveFile::Open(directory, name, O_NOFOLLOW, &error);
    if (!file) {
        return error;
    }
    fstat(file->fd(), &last_);
    // Where no thread can be started, Collect() sums.
    sum_ = std::async(std::launch::async | std::launch::deferred,
                      [held = *file] { return SumOf(held.fd()); });
    return error;
}

void Summer::Collect() {
    const std::string sum = sum_.valid() ? sum_.get() : "-";
    if (sum.empty() || name_.find('\n') != std::string::npos) {
        error_ =
            fmt::format("{}: {}", name_, sum.empty() ? kNoSum : "no sums are kept of such a name");
    } else if (sum != "-") {
        lines_ += fmt::format("{}  {}\n", sum, name_);
    }
}

bool Summer::Finish(int directory, const std::string& name, std::string* error) {
    Collect();
    *error = error_;
    if (!error->empty()) {
        return false;
    }
    NewFile file;
    const bool is_written =
        file.Create(directory, name) &&
        write(file.fd(), lines_.data(), lines_.size()) == static_cast<ssize_t>(lines_.size()) &&
        fchown(file.fd(), last_.st_uid, last_.st_gid) == 0 && file.Finish(last_.st_mode & 0777);
    if (!is_written) {
        *error = fmt::format("{}: cannot be written: {}", name, ErrorText(errno));
    }
    return is_written;
}

uint64_t CheckSums(const ArchiveSet& set, const FindingSink& sink) {
    uint64_t faults = 0;
    const auto fault = [&](const std::string& name, const std::string& message) {
        sink({Finding::Severity::kFault, name, "", message});
        ++faults;
    };
    const std::string name = SumsName(set.name());
    if (faccessat(set.directory(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        return 0;
    }
    std::string error = kNoSum;
    const auto file = ArchiveFile::Open(set.directory(), name, O_NOFOLLOW, &error);
    const UniqueFile stream(file ? fdopen(fcntl(file->fd(), F_DUPFD_CLOEXEC, 0), "re") : nullptr);
    if (stream == nullptr) {
        fault(name, error);
        return faults;
    }
    std::vector<bool> is_summed(set.size() + (set.is_check_file() ? 1 : 0));
    // An archive and a set of one name share the file: the last that was written has it.
    bool is_of_another = false;
    char line[8192] = {};
    while (fgets(line, sizeof(line), stream.get()) != nullptr) {
        char sum[kSumDigits + 1] = {};
        int length = 0;
        if (sscanf(line, "%64[0-9a-f]%*1[ ]%*1[ *]%n", sum, &length) != 1 ||
            length != kSumDigits + 2) {
            fault(name, "a line is not a sum and the name of a file");
            return faults;
        }
        std::string of = line + length;
        of.erase(of.find_last_not_of('\n') + 1);
        const std::optional<size_t> index = IndexOf(set, of);
        if (!index) {
            is_of_another = true;
            continue;
        }
        is_summed[*index] = true;
        if (const std::string difference = Compare(set, *index, sum); !difference.empty()) {
            fault(of, difference);
        }
    }
    const bool has_none = std::count(is_summed.begin(), is_summed.end(), true) == 0;
    for (size_t i = 0; !(is_of_another && has_none) && i < is_summed.size(); i++) {
        if (!is_summed[i]) {
            fault(i < set.size() ? set.NameOf(i) : set.name(), "has no sum in " + name);
        }
    }
    return faults;
}

}  // namespace peltexctl
