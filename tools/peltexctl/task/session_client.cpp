// Tested by tests/peltexctl/test_shell.py.
#include "task/session_client.h"

#include <android/os/IBackupSessionCallback.h>
#include <binder/IBinder.h>
#include <binder/Status.h>
#include <dlfcn.h>
#include <fmt/format.h>
#include <host/local_binder.h>

#include <algorithm>
#include <utility>

#include "ui/exit_code.h"

namespace peltexctl {

namespace {

template <typename Function>
void Resolve(void* handle, const std::string& file, const char* name, Function** function) {
    *function = reinterpret_cast<Function*>(dlsym(handle, name));
    if (*function == nullptr) {
        throw Failure(kNoLibraryOrData,
                      fmt::format("{}: has no function {}, so it is not the library", file, name));
    }
}

}  // namespace

Library LoadLibrary(const std::optional<std::string>& path) {
    // With the version of its interface: the name without one is there for those who link. The
    // loader takes a name without a slash for one to search for.
    const std::string file = !path                                  ? PELTEXCTL_LIBRARY
                             : path->find('/') == std::string::npos ? "./" + *path
                                                                    : *path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the C library keeps the text per thread
        const char* const text = dlerror();
        throw Failure(kNoLibraryOrData,
                      fmt::format("cannot load the library: {}; --library FILE names another",
                                  text != nullptr ? text : "unknown error"));
    }
    Library library{};
    Resolve(handle, file, "startBackupSession", &library.start);
    Resolve(handle, file, "executeBackupTask", &library.execute);
    Resolve(handle, file, "finishBackupSession", &library.finish);
    return library;
}

class ClientCallback : public android::os::IBackupSessionCallback {
  public:
    ClientCallback(int number, std::shared_ptr<const SessionClient::StatusListener> listener)
        : number_(number), listener_(std::move(listener)) {}

    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        (*listener_)({session, task, code, message, number_});
        return android::binder::Status::ok();
    }

    // Returns false if it was dead before.
    bool Die() {
        if (std::exchange(dead_, true)) {
            return false;
        }
        binder_->notifyDeath();
        return true;
    }

  protected:
    android::IBinder* onAsBinder() override { return binder_.get(); }

  private:
    const int number_;
    const std::shared_ptr<const SessionClient::StatusListener> listener_;
    const android::sp<android::host::LocalBinder> binder_ = new android::host::LocalBinder();
    bool dead_ = false;
};

SessionClient::SessionClient(const Library& library, StatusListener listener)
    : library_(library), listener_(std::make_shared<const StatusListener>(std::move(listener))) {
    RenewCallback();
}

SessionClient::~SessionClient() = default;

int SessionClient::Open() {
    const int session = library_.start(callback_);
    open_sessions_.push_back(session);
    return session;
}

void SessionClient::RenewCallback() {
    callback_ = new ClientCallback(++callbacks_made_, listener_);
}

int SessionClient::Execute(int session, const std::string& command) {
    const std::string own(command.data(), command.size());
    return library_.execute(session, own);
}

int SessionClient::Finish(int session) {
    const int result = library_.finish(session);
    if (result == 0) {
        open_sessions_.erase(std::remove(open_sessions_.begin(), open_sessions_.end(), session),
                             open_sessions_.end());
    }
    return result;
}

void SessionClient::Die() {
    if (callback_->Die()) {
        open_sessions_.clear();
    }
}

}  // namespace peltexctl
