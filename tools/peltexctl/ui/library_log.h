// The library's log lines: shown as they come, or kept until a task is known to have failed. Bytes
// of file names are escaped either way.
//
// Thread-safe: the library logs on threads of its own.
#pragma once

#include <array>
#include <string>

#include "ui/progress_view.h"

namespace peltexctl {

// The words for --log, from the chattiest on.
inline constexpr std::array kLogLevels = {"debug", "info", "warn", "error", "silent"};

// Shows the lines from `level` on, past the bar of `view`. Where `level` is empty, keeps the last
// lines that tell of errors instead. To be called before the library has a thread.
void TakeLibraryLog(const std::string& level, ProgressView* view);

// Prints what was kept, and forgets it.
void PrintKeptLog();

}  // namespace peltexctl
