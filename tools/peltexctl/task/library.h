// The library as its client sees it: three functions, the callback object that hears of its tasks,
// and its log.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <binder/Status.h>
#include <host/local_binder.h>
#include <utils/StrongPointer.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "ui/events.h"
#include "ui/progress_view.h"

namespace peltexctl {

// The lowest id of a session or task: below are results.
inline constexpr int kFirstId = 100;

// What the library exports. To be called from one thread.
struct Library {
    int32_t (*start)(const android::sp<android::os::IBackupSessionCallback>& callback);
    // Writes NULs over the blanks of `command`.
    int32_t (*execute)(int session, const std::string& command);
    int32_t (*finish)(int session);

    // Sends `command`, byte for byte, and leaves it as it is.
    int32_t Execute(int session, const std::string& command) const {
        return execute(session, std::string(command));
    }
};

// Loads the library at `path`; without one the one that the system's loader finds, beside this
// program first. It stays loaded to the end of the process, because its threads do. Throws Failure.
Library LoadLibrary(const std::optional<std::string>& path);

// Calls `listener` with each status, on the library's threads too, at times with the library's lock
// held: it must neither call the library nor wait for a thread that does. The library may keep this
// object as long as it is loaded, and so must live what the listener refers to.
class ClientCallback : public android::os::IBackupSessionCallback {
  public:
    using StatusListener = std::function<void(const StatusEvent&)>;

    // `number` tells callbacks of one program apart, from 1 on.
    ClientCallback(int number, StatusListener listener)
        : number_(number), listener_(std::move(listener)) {}

    // Reports the death of the client's process, which closes every session. Returns false, and
    // does nothing, where it has died before.
    bool Die() {
        const bool lives = !std::exchange(dead_, true);
        binder_->notifyDeath();
        return lives;
    }

    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        listener_({session, task, code, message, number_});
        return android::binder::Status::ok();
    }

  protected:
    android::IBinder* onAsBinder() override { return binder_.get(); }

  private:
    const int number_;
    const StatusListener listener_;
    const android::sp<android::host::LocalBinder> binder_ = new android::host::LocalBinder();
    bool dead_ = false;
};

// The words for --log, from the chattiest on.
inline constexpr std::array kLogLevels = {"debug", "info", "warn", "error", "silent"};

// Shows the library's log lines from `level` on, past the bar of `view`. Where `level` is empty,
// keeps the last lines that tell of errors instead. To be called before the library has a thread.
void TakeLibraryLog(const std::string& level, ProgressView* view);

// Prints what was kept, and forgets it.
void PrintKeptLog();

}  // namespace peltexctl
