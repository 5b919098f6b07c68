// Tested by tests/peltexctl/test_shell.py.
#include "task/session_client.h"

#include <android/os/IBackupSessionCallback.h>
#include <binder/IBinder.h>
#include <binder/Status.h>
#include <host/local_binder.h>

#include <algorithm>
#include <utility>

namespace peltexctl {

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
