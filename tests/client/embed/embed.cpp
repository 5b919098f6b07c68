// The shortest program that embeds the library: one session, one command, one task to its end.
//
//   embed COMMAND      such as "backup tar /data/data/app /data/data/backup default 10123"
//
// Prints each status. Exit status: 0 when the command succeeded.
#include <android/os/IBackupSessionCallback.h>
#include <host/local_binder.h>
#include <service/peltexinstalld.h>
#include <stdio.h>

#include <future>
#include <string>

namespace {

class Client : public android::os::IBackupSessionCallback {
  public:
    // Called on a worker, or inside executeBackupTask: keeps what it hears and returns.
    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        printf("session %d task %d status %d %s\n", session, task, code, message.c_str());
        if (message == "processTask finish" || message == "prepareTask error") {
            mEnd.set_value(code);
        }
        return android::binder::Status::ok();
    }

    // Waits for the end of the one task there is. Returns 0 or -1.
    int32_t waitForEnd() { return mEnd.get_future().get(); }

  protected:
    android::IBinder* onAsBinder() override { return mBinder.get(); }

  private:
    std::promise<int32_t> mEnd;
    const android::sp<android::host::LocalBinder> mBinder = new android::host::LocalBinder();
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s COMMAND\n", argv[0]);
        return 2;
    }
    const android::sp<Client> client = new Client();
    const int32_t session = startBackupSession(client);
    std::string command = argv[1];  // not const: the library writes NULs into it
    int32_t result = executeBackupTask(session, command);
    if (result >= 100) {
        result = client->waitForEnd();
    }
    finishBackupSession(session);
    return result == 0 ? 0 : 1;
}
