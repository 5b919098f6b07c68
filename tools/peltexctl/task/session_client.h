// A client of the library: sessions, commands, and the callback objects that hear of its tasks.
//
// Used from one thread. The listener is called on the library's threads too, at times with the
// library's lock held: it must neither call the library nor wait for a thread that does.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ui/events.h"

namespace peltexctl {

// The three functions that the library exports.
struct Library {
    int32_t (*start)(const android::sp<android::os::IBackupSessionCallback>& callback);
    // Writes NULs over the blanks of `command`: give it a copy of its own.
    int32_t (*execute)(int session, const std::string& command);
    int32_t (*finish)(int session);
};

// Loads the library at `path`; without one the one that the system's loader finds, beside this
// program first. It stays loaded to the end of the process, because its threads do. Throws Failure.
Library LoadLibrary(const std::optional<std::string>& path);

class ClientCallback;

// The lowest id of a session or task: below are results.
inline constexpr int kFirstId = 100;

class SessionClient {
  public:
    using StatusListener = std::function<void(const StatusEvent&)>;

    // What `listener` refers to must live as long as the process: the library keeps the callback.
    SessionClient(const Library& library, StatusListener listener);
    ~SessionClient();

    SessionClient(const SessionClient&) = delete;
    SessionClient& operator=(const SessionClient&) = delete;

    // Opens a session with the current callback object and returns the library's answer.
    int Open();
    // Replaces the current callback object, for the next Open().
    void RenewCallback();

    // Sends `command`, byte for byte, and returns the library's answer.
    int Execute(int session, const std::string& command);

    // Returns the library's answer: 0, or -1 for a session that is not open.
    int Finish(int session);

    // Reports the death of the current callback's process, which closes every session. A process
    // dies once: for a callback that is dead already nothing happens.
    void Die();

    // Open sessions, oldest first.
    const std::vector<int>& open_sessions() const { return open_sessions_; }

  private:
    const Library library_;
    // Shared with the callback objects, which the library may keep for longer than this object.
    const std::shared_ptr<const StatusListener> listener_;
    android::sp<ClientCallback> callback_;
    int callbacks_made_ = 0;
    std::vector<int> open_sessions_;
};

}  // namespace peltexctl
