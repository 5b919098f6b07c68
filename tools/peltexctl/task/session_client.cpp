#include "task/session_client.h"

#include <android/os/IBackupSessionCallback.h>
#include <binder/IBinder.h>
#include <binder/Status.h>
#include <host/local_binder.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr int kFirstId = 100;

// The task that `command` asks to abort, read as the library reads it.
std::optional<int> AbortedTask(const std::string& command) {
    const std::vector<std::string> words = SplitWords(command.c_str(), " ");
    if (words.size() != 2 || words[0] != "abort") {
        return std::nullopt;
    }
    return static_cast<int>(std::strtol(words[1].c_str(), nullptr, 0));
}

}  // namespace

class ClientCallback : public android::os::IBackupSessionCallback {
  public:
    ClientCallback(int number, std::shared_ptr<TaskTracker> tasks,
                   std::shared_ptr<const SessionClient::StatusListener> listener)
        : number_(number), tasks_(std::move(tasks)), listener_(std::move(listener)) {}

    // The listener comes first, so that whoever waits for a status finds it already reported.
    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        const StatusEvent event{session, task, code, message, number_};
        (*listener_)(event);
        tasks_->Heard(event);
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
    const std::shared_ptr<TaskTracker> tasks_;
    const std::shared_ptr<const SessionClient::StatusListener> listener_;
    const android::sp<android::host::LocalBinder> binder_ = new android::host::LocalBinder();
    bool dead_ = false;
};

SessionClient::SessionClient(const Library& library, StatusListener listener)
    : library_(library),
      tasks_(std::make_shared<TaskTracker>()),
      listener_(std::make_shared<const StatusListener>(std::move(listener))) {
    RenewCallback();
}

SessionClient::~SessionClient() = default;

int SessionClient::Open() {
    const int session = library_.start(callback_);
    open_sessions_.push_back(session);
    return session;
}

void SessionClient::RenewCallback() {
    callback_ = new ClientCallback(++callbacks_made_, tasks_, listener_);
}

int SessionClient::Execute(int session, const std::string& command) {
    const std::string own(command.data(), command.size());
    const int result = library_.execute(session, own);
    if (result >= kFirstId) {
        tasks_->Given(result, session);
    } else if (const std::optional<int> task = AbortedTask(command); task && result == 0) {
        tasks_->AbortAccepted(*task);
    }
    return result;
}

int SessionClient::Finish(int session) {
    const int result = library_.finish(session);
    if (result == 0) {
        open_sessions_.erase(std::remove(open_sessions_.begin(), open_sessions_.end(), session),
                             open_sessions_.end());
        tasks_->SessionFinished(session);
    }
    return result;
}

void SessionClient::Die() {
    if (callback_->Die()) {
        open_sessions_.clear();
    }
}

}  // namespace peltexctl
