// The threads of this process as the kernel shows them.
#pragma once

#include <vector>

#include "ui/events.h"

namespace peltexctl {

// Every thread of this process, by id; one that ends meanwhile is left out.
std::vector<ThreadInfo> ListThreads();

}  // namespace peltexctl
