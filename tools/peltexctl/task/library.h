// The library's three exported functions, found by name as the daemon finds them.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <optional>
#include <string>

namespace peltexctl {

struct Library {
    int32_t (*start)(const android::sp<android::os::IBackupSessionCallback>& callback);
    // Writes NULs over the blanks of `command`: give it a copy of its own.
    int32_t (*execute)(int session, const std::string& command);
    int32_t (*finish)(int session);
};

// Loads the library at `path`; without one the one that the system's loader finds, beside this
// program first. It stays loaded to the end of the process, because its threads do. Throws Failure.
Library LoadLibrary(const std::optional<std::string>& path);

}  // namespace peltexctl
