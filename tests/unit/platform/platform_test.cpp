// The platform layer where threads race.

#include <android/log.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/test_files.h"

namespace android {
namespace host {
namespace {

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

  private:
    bool threadLoop() override { return mPass(*this); }
    std::function<bool(Worker&)> mPass;
};

TEST(Thread, AnObjectThatOnlyItsThreadHoldsIsDeletedBetweenTwoPasses) {
    std::atomic<bool> goOn{false};
    std::shared_ptr<int> witness(new int());
    const std::weak_ptr<int> alive = witness;
    sp<Worker> worker(new Worker([witness, &goOn](Worker&) {
        while (!goOn) {
            std::this_thread::yield();
        }
        return true;
    }));
    ASSERT_EQ(OK, worker->run("worker"));
    worker.clear();
    witness.reset();
    EXPECT_FALSE(alive.expired());
    goOn = true;
    while (!alive.expired()) {
        std::this_thread::yield();
    }
}

// What `print` writes to standard error, through a pipe.
std::string writtenBy(const std::function<void()>& print) {
    const peltex_test::TempTree tree;
    const int saved = dup(STDERR_FILENO);
    FILE* const reader = popen(("cat > " + tree / "text").c_str(), "we");
    dup2(fileno(reader), STDERR_FILENO);
    print();
    dup2(saved, STDERR_FILENO);
    close(saved);
    pclose(reader);
    return peltex_test::readFile(tree / "text");
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
