// The platform layer, called as the library and its client call it.

#include <android/log.h>
#include <android/os/IBackupSessionCallback.h>
#include <binder/IBinder.h>
#include <gtest/gtest.h>
#include <selinux/android.h>
#include <stdlib.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>
#include <utils/Vector.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/local_binder.h"
#include "host/log_capture.h"
#include "host/relabel_observer.h"

namespace android {
namespace host {
namespace {

struct Left {
    virtual ~Left() = default;
    int padding = 0;
};

// Two ways to the one RefBase, and a base before it: the addresses of the parts differ.
class Counted : public Left, public virtual RefBase, public IBinder::DeathRecipient {
  public:
    explicit Counted(std::atomic<int>* alive) : mAlive(alive) { ++*mAlive; }
    ~Counted() override { --*mAlive; }
    void binderDied(const wp<IBinder>& who) override {
        ++deaths;
        lastDead = who;
    }
    void onFirstRef() override { ++firstRefs; }

    std::atomic<int> deaths{0};
    int firstRefs = 0;
    wp<IBinder> lastDead;

  private:
    std::atomic<int>* const mAlive;
};

TEST(RefBase, LastStrongReferenceDeletesAndWeakOnesDoNotKeepAlive) {
    std::atomic<int> alive{0};
    sp<Counted> first = sp<Counted>::make(&alive);
    sp<IBinder::DeathRecipient> base = first;
    wp<IBinder::DeathRecipient> weak(first);
    EXPECT_EQ(1, first->firstRefs);
    EXPECT_EQ(2, first->getStrongCount());
    EXPECT_TRUE(base == first && weak == first && first == weak && weak == wp<Counted>(first));
    EXPECT_TRUE(weak.promote() == base);

    first = nullptr;
    EXPECT_EQ(1, alive);
    sp<IBinder::DeathRecipient> moved = std::move(base);
    EXPECT_EQ(1, moved->getStrongCount());
    EXPECT_TRUE(moved == weak && moved.get() == weak.unsafe_get());
    moved.clear();
    EXPECT_EQ(0, alive);
    EXPECT_TRUE(weak.promote() == nullptr);
    EXPECT_TRUE(weak.unsafe_get() != nullptr);
    EXPECT_TRUE(weak != sp<Counted>::make(&alive));
}

TEST(RefBase, NobodyCanHoldAnObjectThatDiedUnheld) {
    std::atomic<int> alive{0};
    wp<Counted> weak;
    {
        Counted onStack(&alive);
        weak = &onStack;
    }
    EXPECT_TRUE(weak.promote() == nullptr);
    weak = new Counted(&alive);
    EXPECT_TRUE(weak.promote() != nullptr);
    EXPECT_EQ(0, alive);
}

// Each holder writes a field of its own, plainly; the destructor reads them all.
class Shared : public virtual RefBase {
  public:
    explicit Shared(std::atomic<int>* result) : mResult(result) {}
    ~Shared() override { *mResult += held[0] + held[1] + held[2]; }

    int held[3] = {};

  private:
    std::atomic<int>* const mResult;
};

TEST(RefBase, PromotionRacesWithTheLastRelease) {
    for (int round = 0; round < 500; ++round) {
        std::atomic<int> counted{0};
        std::atomic<int> expected{0};
        std::atomic<int> ready{0};
        sp<Shared> object(new Shared(&counted));
        const wp<Shared> weak(object);
        const auto hold = [&, weak](int index) {
            ++ready;
            for (int i = 0; i < 100; ++i) {
                const sp<Shared> strong = weak.promote();
                if (strong == nullptr) {
                    return;
                }
                ++strong->held[index];
                ++expected;
            }
        };
        std::thread threads[] = {std::thread(hold, 0), std::thread(hold, 1), std::thread(hold, 2)};
        while (ready < round % 4) {
            std::this_thread::yield();
        }
        object.clear();
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_TRUE(weak.promote() == nullptr);
        ASSERT_EQ(expected, counted);
    }
}

TEST(Vector, IndexesAndResults) {
    Vector<std::string> list;
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(0, list.add("a"));
    EXPECT_EQ(1, list.add("c"));
    EXPECT_EQ(1, list.insertAt("b", 1));
    list.push_back("d");
    list.editItemAt(3) += "!";
    EXPECT_EQ("d!", list.top());
    EXPECT_EQ(BAD_INDEX, list.insertAt("z", 5));
    EXPECT_EQ(BAD_VALUE, list.removeAt(4));
    EXPECT_EQ(BAD_VALUE, list.removeItemsAt(1, SIZE_MAX));
    EXPECT_EQ(1, list.removeItemsAt(1, 2));
    EXPECT_EQ((std::vector<std::string>{"a", "d!"}),
              std::vector<std::string>(list.begin(), list.end()));
}

class Worker : public Thread {
  public:
    explicit Worker(std::function<bool(Worker&)> pass) : mPass(std::move(pass)) {}
    using Thread::exitPending;

  private:
    bool threadLoop() override { return mPass(*this); }
    std::function<bool(Worker&)> mPass;
};

TEST(Thread, HasItsNameItsPriorityAndItsId) {
    std::string name;
    int nice = 0;
    pid_t tid = 0;
    status_t joinedItself = 0;
    const sp<Worker> worker(new Worker([&](Worker& self) {
        std::ifstream comm("/proc/thread-self/comm");
        std::getline(comm, name);
        androidSetThreadPriority(0, androidGetThreadPriority(0) + 2);
        tid = self.getTid() == gettid() ? gettid() : -1;
        nice = androidGetThreadPriority(tid);
        joinedItself = self.join();
        return false;
    }));
    EXPECT_EQ(-1, worker->getTid());
    ASSERT_EQ(OK, worker->run("\xff\001Worker_345678901", 10, 1 << 20));
    EXPECT_EQ(OK, worker->join());
    EXPECT_EQ("\xff\001Worker_345678", name);
    EXPECT_EQ(12, nice);
    EXPECT_GT(tid, 0);
    EXPECT_EQ(WOULD_BLOCK, joinedItself);
    EXPECT_EQ(-1, worker->getTid());
    EXPECT_FALSE(worker->isRunning());
}

TEST(Thread, EndsAfterThePassInWhichExitIsPendingAndRunsAgain) {
    std::atomic<int> passes{0};
    std::atomic<bool> endItself{false};
    const sp<Worker> worker(new Worker([&](Worker& self) {
        ++passes;
        while (!self.exitPending() && !endItself) {
            std::this_thread::yield();
        }
        return !endItself;
    }));
    ASSERT_EQ(OK, worker->run("worker"));
    EXPECT_GT(worker->getTid(), 0);
    while (passes == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(INVALID_OPERATION, worker->run("worker"));
    EXPECT_TRUE(worker->isRunning());
    worker->requestExit();
    EXPECT_EQ(OK, worker->join());
    EXPECT_EQ(1, passes);

    endItself = true;
    ASSERT_EQ(OK, worker->run("worker"));
    EXPECT_EQ(OK, worker->join());
    EXPECT_EQ(2, passes);
    EXPECT_TRUE(worker->exitPending());
    EXPECT_EQ(OK, worker->requestExitAndWait());
}

TEST(Thread, AnObjectThatOnlyItsThreadHoldsIsDeletedBetweenTwoPasses) {
    std::atomic<int> alive{0};
    std::atomic<bool> goOn{false};
    sp<Counted> witness(new Counted(&alive));
    sp<Worker> worker(new Worker([witness, &goOn](Worker&) {
        while (!goOn) {
            std::this_thread::yield();
        }
        return true;
    }));
    ASSERT_EQ(OK, worker->run("worker"));
    worker.clear();
    witness.clear();
    EXPECT_EQ(1, alive);
    goOn = true;
    while (alive != 0) {
        std::this_thread::yield();
    }
}

TEST(Thread, AThreadThatCannotBeHadIsNotRunning) {
    const sp<Worker> worker(new Worker([](Worker&) { return false; }));
    EXPECT_EQ(UNKNOWN_ERROR, worker->run("worker", 0, size_t{1} << 60));
    EXPECT_FALSE(worker->isRunning());
    EXPECT_EQ(1, worker->getStrongCount());
    EXPECT_EQ(OK, worker->run("worker"));
    EXPECT_EQ(OK, worker->join());
}

class Callback : public os::IBackupSessionCallback {
  public:
    binder::Status onTaskStatusChanged(int32_t, int32_t, int32_t code,
                                       const std::string&) override {
        return binder::Status::fromStatusT(code);
    }
    const sp<LocalBinder> binder{new LocalBinder};

  protected:
    IBinder* onAsBinder() override { return binder.get(); }
};

TEST(Binder, AnInterfaceHasItsBinderAndItsCallsAStatus) {
    const sp<Callback> callback(new Callback);
    const sp<os::IBackupSessionCallback> iface = callback;
    EXPECT_TRUE(IInterface::asBinder(iface) == callback->binder);
    EXPECT_TRUE(IInterface::asBinder(nullptr) == nullptr);
    EXPECT_TRUE(iface->onTaskStatusChanged(1, 2, 0, "").isOk());
    const auto failed = iface->onTaskStatusChanged(1, 2, DEAD_OBJECT, "");
    EXPECT_EQ(DEAD_OBJECT, failed.transactionError());
    EXPECT_FALSE(failed.isOk());
}

TEST(Binder, DeathIsToldOnceToWhomIsLinkedAndAlive) {
    std::atomic<int> alive{0};
    const sp<LocalBinder> binder(new LocalBinder);
    const sp<Counted> linked(new Counted(&alive));
    const sp<Counted> unlinked(new Counted(&alive));
    EXPECT_EQ(OK, binder->linkToDeath(linked));
    EXPECT_EQ(OK, binder->linkToDeath(unlinked));
    EXPECT_EQ(OK, binder->linkToDeath(sp<Counted>(new Counted(&alive))));
    EXPECT_EQ(2, alive);
    EXPECT_EQ(OK, binder->unlinkToDeath(unlinked.get()));
    EXPECT_EQ(NAME_NOT_FOUND, binder->unlinkToDeath(unlinked.get()));
    EXPECT_EQ(NAME_NOT_FOUND, binder->unlinkToDeath(linked.get(), nullptr, 1));

    binder->notifyDeath();
    binder->notifyDeath();
    EXPECT_EQ(1, linked->deaths);
    EXPECT_TRUE(linked->lastDead.promote() == binder);
    EXPECT_EQ(0, unlinked->deaths);
    EXPECT_EQ(DEAD_OBJECT, binder->linkToDeath(unlinked));
}

// What `print` writes to standard error.
std::string writtenBy(const std::function<void()>& print) {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    std::string text;
    std::thread reader([&] {
        char part[4096];
        for (ssize_t got = 0; (got = read(ends[0], part, sizeof(part))) > 0;) {
            text.append(part, static_cast<size_t>(got));
        }
    });
    print();
    dup2(saved, STDERR_FILENO);
    close(saved);
    reader.join();
    close(ends[0]);
    return text;
}

TEST(Log, LinesOnStandardError) {
    const std::string pid = "(" + std::to_string(getpid()) + "): ";
    const std::string text = writtenBy([] {
        errno = ENOENT;
        EXPECT_EQ(-EPERM, __android_log_print(ANDROID_LOG_DEBUG, "Tag", "hidden"));
        EXPECT_EQ(1, __android_log_print(ANDROID_LOG_INFO, "Tag", "%s %d: %m", "one", 1));
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "no second newline\n");
        EXPECT_EQ(ANDROID_LOG_DEFAULT, __android_log_set_minimum_priority(ANDROID_LOG_DEBUG));
        __android_log_print(ANDROID_LOG_DEBUG, "Tag", "%s", "");
        EXPECT_EQ(ANDROID_LOG_DEBUG, __android_log_set_minimum_priority(ANDROID_LOG_SILENT));
        __android_log_print(ANDROID_LOG_FATAL, "Tag", "hidden");
        EXPECT_EQ(ANDROID_LOG_SILENT, __android_log_set_minimum_priority(ANDROID_LOG_DEFAULT));
    });
    EXPECT_EQ("I/Tag" + pid + "one 1: No such file or directory\nE/" +
                  program_invocation_short_name + pid + "no second newline\nD/Tag" + pid + "\n",
              text);
}

TEST(Log, LongLinesOfSeveralThreadsArriveWholeAndUnmixed) {
    const std::string text = writtenBy([] {
        const auto print = [](char filling) {
            const std::string message(50000, filling);
            for (int line = 0; line < 7; ++line) {
                __android_log_print(ANDROID_LOG_WARN, "T", "%s", message.c_str());
            }
        };
        std::thread threads[] = {std::thread(print, 'a'), std::thread(print, 'b'),
                                 std::thread(print, 'c')};
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    const std::string head = "W/T(" + std::to_string(getpid()) + "): ";
    const size_t lineSize = head.size() + 50000 + 1;
    ASSERT_EQ(21 * lineSize, text.size());
    for (size_t at = 0; at < text.size(); at += lineSize) {
        const std::string expected = head + std::string(50000, text[at + head.size()]) + "\n";
        ASSERT_TRUE(text.compare(at, lineSize, expected) == 0) << "line at " << at;
    }
}

TEST(Log, ALoggerOrACaptureTakesTheLinesInstead) {
    static std::vector<std::string> seen;
    seen.clear();
    const std::string text = writtenBy([] {
        __android_log_set_logger([](const __android_log_message* message) {
            errno = EIO;
            seen.push_back(std::to_string(message->priority) + message->tag + message->message);
        });
        errno = ENOENT;
        __android_log_print(ANDROID_LOG_ERROR, "Tag", "to the logger");
        EXPECT_EQ(ENOENT, errno);
        {
            LogCapture capture;
            __android_log_print(ANDROID_LOG_DEBUG, nullptr, "to the capture\n");
            ASSERT_EQ(1U, capture.lines().size());
            const auto line = capture.lines()[0];
            EXPECT_EQ(ANDROID_LOG_DEBUG, line.priority);
            EXPECT_TRUE(!line.hasTag && line.tag.empty());
            EXPECT_EQ("to the capture\n", line.message);
            capture.clear();
            EXPECT_TRUE(capture.lines().empty());
        }
        __android_log_print(ANDROID_LOG_DEBUG, "Tag", "hidden");
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "again");
        __android_log_set_logger(__android_log_stderr_logger);
    });
    EXPECT_EQ("", text);
    EXPECT_EQ((std::vector<std::string>{
                  "6Tagto the logger", std::string("6") + program_invocation_short_name + "again"}),
              seen);
}

TEST(Selinux, TheObserverSeesEachCallAndCanRefuse) {
    char root[] = "/tmp/platform_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(root));
    const std::string gone = std::string(root) + "/gone";
    std::vector<std::tuple<std::string, std::string, uid_t, unsigned>> calls;
    int refusal = 0;
    {
        const ScopedRelabelObserver scoped(
            [&](const char* path, const char* seinfo, uid_t uid, unsigned flags) {
                calls.emplace_back(path, seinfo, uid, flags);
                return refusal;
            });
        EXPECT_EQ(0, selinux_android_restorecon_pkgdir(root, "default", 10001,
                                                       SELINUX_ANDROID_RESTORECON_RECURSE));
        EXPECT_EQ(-1, selinux_android_restorecon_pkgdir(gone.c_str(), "x", 0, 0));
        EXPECT_EQ(ENOENT, errno);
        refusal = EACCES;
        EXPECT_EQ(-1, selinux_android_restorecon_pkgdir(root, "y", 1, 0));
        EXPECT_EQ(EACCES, errno);
    }
    EXPECT_EQ(0, selinux_android_restorecon_pkgdir(root, "unseen", 1, 0));
    EXPECT_EQ((decltype(calls){{root, "default", 10001, 4}, {gone, "x", 0, 0}, {root, "y", 1, 0}}),
              calls);
    rmdir(root);
}

}  // namespace
}  // namespace host
}  // namespace android
