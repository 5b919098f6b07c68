// The platform layer, called as the library and its client call it.

#include <android/log.h>
#include <binder/IBinder.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "host/local_binder.h"

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

    std::atomic<int> deaths{0};
    wp<IBinder> lastDead;

  private:
    std::atomic<int>* const mAlive;
};

TEST(RefBase, LastStrongReferenceDeletesAndWeakOnesDoNotKeepAlive) {
    std::atomic<int> alive{0};
    sp<Counted> first(new Counted(&alive));
    sp<IBinder::DeathRecipient> base = first;
    const wp<IBinder::DeathRecipient> weak(first);
    EXPECT_TRUE(base == first && weak == wp<Counted>(first) && weak.promote() == base);

    first = nullptr;
    EXPECT_EQ(1, alive);
    sp<IBinder::DeathRecipient> moved = std::move(base);
    EXPECT_TRUE(moved.get() == weak.unsafe_get());
    moved.clear();
    EXPECT_EQ(0, alive);
    EXPECT_TRUE(weak.promote() == nullptr);
    EXPECT_TRUE(weak.unsafe_get() != nullptr);
    EXPECT_FALSE(weak == wp<Counted>(sp<Counted>(new Counted(&alive))));
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

}  // namespace
}  // namespace host
}  // namespace android
