// A buffer of whole pages, which the kernel copies from and to faster.
#pragma once

#include <stddef.h>
#include <stdlib.h>

#include <memory>

namespace android::installd {

struct PageDeleter {
    void operator()(char* pages) const { free(pages); }
};
using PageBuffer = std::unique_ptr<char, PageDeleter>;

// Returns null when there is no memory.
inline PageBuffer allocatePages(size_t size) {
    constexpr size_t kPageSize = 4096;
    void* pages = nullptr;
    return PageBuffer(posix_memalign(&pages, kPageSize, size) == 0 ? static_cast<char*>(pages)
                                                                   : nullptr);
}

}  // namespace android::installd
