// Sends one command to the library and waits for its end: the leanest client that does the whole
// job, for comparisons with programs that are a whole process too.
//
//   bench_driver COMMAND-LINE
//
// A split backup is continued at once; its slices stay where they are. Prints "IDLE PEAK": the
// resident memory of this process when its session is open, and the most until the end, in KiB.
// Exit status: 0 when the command succeeded.

#include <android/log.h>
#include <host/local_binder.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "service/peltexinstalld.h"

namespace {

using namespace std::chrono_literals;

constexpr int32_t kSlicePackaged = 4;
constexpr std::chrono::microseconds kFirstRepeat = 100us;
constexpr std::chrono::microseconds kLongestRepeat = 10ms;

class Client : public android::os::IBackupSessionCallback {
  public:
    android::binder::Status onTaskStatusChanged(int32_t /*session*/, int32_t /*task*/, int32_t code,
                                                const std::string& message) override {
        const bool ends = message == "processTask finish" || message == "prepareTask error";
        const bool hands = code == kSlicePackaged;
        // A continuation that is under way is finished first: one for a backup that has ended would
        // begin a second one.
        std::unique_lock<std::mutex> settled(continuing, std::defer_lock);
        if (ends || hands) {
            settled.lock();
        }
        const std::lock_guard<std::mutex> lock(mutex);
        ++heard;
        if (hands &&
            message.find("end", message.size() < 3 ? 0 : message.size() - 3) == std::string::npos) {
            waitsSince = heard;
        }
        if (ends) {
            result = code;
            ended = true;
        }
        // Nobody looks at mere progress, unless to see that a slice was continued.
        if (ends || hands || repeats) {
            changed.notify_one();
        }
        return android::binder::Status::ok();
    }

    std::mutex continuing;  // held over a continuation; taken before `mutex`

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by `mutex`.
    int heard = 0;
    int waitsSince = -1;   // `heard` when a slice was handed over that is not the last
    bool repeats = false;  // a continuation was sent that may have come too early
    bool ended = false;
    int32_t result = 0;

  protected:
    android::IBinder* onAsBinder() override { return mBinder.get(); }

  private:
    const android::sp<android::host::LocalBinder> mBinder = new android::host::LocalBinder();
};

// A value of /proc/self/status in KiB, 0 when it is not there.
long statusValue(const char* name) {
    FILE* file = fopen("/proc/self/status", "re");
    char line[256];
    long value = 0;
    while (file != nullptr && value == 0 && fgets(line, sizeof(line), file) != nullptr) {
        if (strncmp(line, name, strlen(name)) == 0) {
            value = strtol(line + strlen(name) + 1, nullptr, 10);
        }
    }
    if (file != nullptr) {
        fclose(file);
    }
    return value;
}

// Sends the command again until the backup moves: what comes before its worker waits is lost.
// `lock` is held on entry and on return.
void continueSplit(Client& client, int32_t session, const std::string& command,
                   std::unique_lock<std::mutex>& lock) {
    const int since = client.waitsSince;
    client.repeats = true;
    for (auto pause = kFirstRepeat; !client.ended && client.heard == since;
         pause = std::min(pause * 2, kLongestRepeat)) {
        lock.unlock();
        {
            const std::lock_guard<std::mutex> continuing(client.continuing);
            lock.lock();
            const bool isStill = client.heard == since;
            lock.unlock();
            if (isStill) {
                executeBackupTask(session, std::string(command));
            }
        }
        lock.lock();
        client.changed.wait_for(lock, pause, [&] { return client.ended || client.heard != since; });
    }
    client.repeats = false;
    if (client.waitsSince == since) {
        client.waitsSince = -1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: bench_driver COMMAND-LINE\n");
        return 2;
    }
    const std::string command = argv[1];
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    const android::sp<Client> client = new Client();
    const int32_t session = startBackupSession(client);
    const long idle = statusValue("VmRSS:");
    if (executeBackupTask(session, std::string(command)) < 100) {
        fprintf(stderr, "bench_driver: the command is refused\n");
        return 2;
    }
    std::unique_lock<std::mutex> lock(client->mutex);
    while (!client->ended) {
        client->changed.wait(lock, [&] { return client->ended || client->waitsSince >= 0; });
        if (!client->ended) {
            continueSplit(*client, session, command, lock);
        }
    }
    printf("%ld %ld\n", idle, statusValue("VmHWM:"));
    fflush(stdout);
    // Without the destructors of static objects: a worker may still be on its way out.
    _exit(client->result == 0 ? 0 : 1);
}
