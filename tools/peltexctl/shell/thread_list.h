// The threads of this process as the kernel shows them.
#pragma once

#include <string>
#include <vector>

namespace peltexctl {

struct ThreadInfo {
    std::string name;  // raw bytes, at most 15
    int tid;
    int nice;
};

// Every thread of this process, by id; one that ends meanwhile is left out.
std::vector<ThreadInfo> ListThreads();

}  // namespace peltexctl
