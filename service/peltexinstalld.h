// The three functions that the library exports. The daemon finds them by name after dlopen; all may
// be called from any thread at any time.
//
// The library calls the callback from its worker threads and from inside executeBackupTask, at
// times with one of its locks held. A callback may take its time: that holds up its own task, and
// with a lock held commands and tasks that have not begun. It must not call the library, nor wait
// for a thread that does, nor call exit(), which waits for the workers.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <stdint.h>

#include <string>

extern "C" {

// Opens a session and makes `callback` the one that hears of the tasks of every session from now
// on; its process's death closes all sessions. Keeps a strong reference to it. With a null callback
// nobody hears of them; one whose binder is null is told like any other, but its death is not
// noticed. Returns the session's id, 100 or more.
int32_t startBackupSession(const android::sp<android::os::IBackupSessionCallback>& callback);

// Carries out one command line on an open session, at once or as a task that a worker takes later.
// The line's words are separated in place: afterwards the caller's string holds NUL bytes where the
// separating blanks were. Returns the task's id (100 or more), 0 when the command is done, or a
// negative code when it is refused.
int32_t executeBackupTask(int sessionId, const std::string& taskCmd);

// Closes a session. Returns 0, or -1 when no such session is open.
int32_t finishBackupSession(int sessionId);

}  // extern "C"
