// A client of the service: a callback that keeps what it is told, in order, and lets tests wait.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <host/local_binder.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace peltex_test {

struct Status {
    int32_t session;
    int32_t task;
    int32_t code;
    std::string message;

    bool isFinal() const {
        return message == "processTask finish" || message == "prepareTask error";
    }
};

class TestClient : public android::os::IBackupSessionCallback {
  public:
    using Listener = std::function<void(const Status& status)>;

    TestClient() = default;
    // Keeps nothing.
    explicit TestClient(Listener listener) : onStatus(std::move(listener)), mKeeps(false) {}
    ~TestClient() override { onEnd(); }

    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        const Status status = {session, task, code, message};
        onStatus(status);
        if (mKeeps) {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStatuses.push_back(status);
            mChanged.notify_all();
        }
        return android::binder::Status::ok();
    }

    // Called on the thread that a status comes from, before it is kept; and when the client goes.
    Listener onStatus = [](const Status& /*status*/) {};
    std::function<void()> onEnd = [] {};

    void die() { mBinder->notifyDeath(); }

    std::vector<Status> statuses() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mStatuses;
    }

    // "code message" of each status of the task, in order.
    std::vector<std::string> statusesOf(int32_t task) const {
        std::vector<std::string> texts;
        for (const Status& status : statuses()) {
            if (status.task == task) {
                texts.push_back(std::to_string(status.code) + " " + status.message);
            }
        }
        return texts;
    }

    // Waits until the task was given `code`, or its final status for `kFinal`. Returns the code
    // seen, or kNone after `limit`, which only a test that fails reaches.
    static constexpr int32_t kFinal = 1000;
    static constexpr int32_t kNone = 1001;
    int32_t waitFor(int32_t task, int32_t code,
                    std::chrono::seconds limit = std::chrono::seconds(60)) const {
        const auto isIt = [&](const Status& status) {
            return status.task == task && (code == kFinal ? status.isFinal() : status.code == code);
        };
        std::unique_lock<std::mutex> lock(mMutex);
        std::vector<Status>::const_iterator seen;
        const bool isSeen = mChanged.wait_for(lock, limit, [&] {
            seen = std::find_if(mStatuses.begin(), mStatuses.end(), isIt);
            return seen != mStatuses.end();
        });
        return isSeen ? seen->code : kNone;
    }
    int32_t waitForEnd(int32_t task) const { return waitFor(task, kFinal); }

  protected:
    android::IBinder* onAsBinder() override { return mBinder.get(); }

  private:
    const bool mKeeps = true;
    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::vector<Status> mStatuses;
    const android::sp<android::host::LocalBinder> mBinder = new android::host::LocalBinder();
};

}  // namespace peltex_test
