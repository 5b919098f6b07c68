// Of the folder base/ what no transcript shows: how files are opened.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "base/file_handles.h"
#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

using namespace android::installd;

// The thread sanitizer holds back signals until it likes.
#if defined(__has_feature)
constexpr bool kSignalsComeAtOnce = !__has_feature(thread_sanitizer);
#else
constexpr bool kSignalsComeAtOnce = true;
#endif

// What a lease's holder does when it is asked to give it up. The signal reaches the thread that
// opens the file, before the library goes on.
std::function<void()> gGiveUp;
void giveUpLease(int /*signal*/) {
    const int error = errno;
    gGiveUp();
    errno = error;
}

// An application that takes a lease on its file must not get it left out of a backup, nor have the
// library wait for what it puts there instead.
TEST(OpenRegular, ALeaseIsGivenUpAndAFifoInItsPlaceNotWaitedFor) {
    const TempTree tree;
    struct sigaction action = {};
    action.sa_handler = giveUpLease;
    sigaction(SIGUSR1, &action, nullptr);
    const std::string path = tree / "file";
    plant(tree.path(), {"file=x", "fifo|"});
    for (const bool isReplaced : {false, kSignalsComeAtOnce}) {
        const int leased = open(path.c_str(), O_RDWR | O_CLOEXEC);
        gGiveUp = [&] {
            if (isReplaced) {
                rename((tree / "fifo").c_str(), path.c_str());
            }
            close(leased);
        };
        const f_owner_ex self = {F_OWNER_TID, gettid()};
        ASSERT_EQ(fcntl(leased, F_SETOWN_EX, &self), 0);
        ASSERT_EQ(fcntl(leased, F_SETSIG, SIGUSR1), 0);
        ASSERT_EQ(fcntl(leased, F_SETLEASE, F_WRLCK), 0);
        const Descriptors before = countDescriptors();
        const UniqueFd file = openRegular(Place(path.c_str()));
        char content = '\0';
        EXPECT_EQ(file.isOpen() && read(file.get(), &content, 1) == 1 && content == 'x',
                  !isReplaced);
        EXPECT_EQ(countDescriptors().inherited, before.inherited);
        EXPECT_EQ(countDescriptors().open, before.open - (isReplaced ? 1 : 0));
    }
}

}  // namespace
}  // namespace peltex_test
