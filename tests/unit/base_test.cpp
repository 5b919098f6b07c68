// Of the folder base/ what no task shows: the buffer that walks extend, and how files are opened.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "base/file_handles.h"
#include "base/path_buffer.h"
#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

using namespace android::installd;

TEST(PathBuffer, CutsOrRefusesWhatHasNoRoom) {
    constexpr auto kCut = PathBuffer::Fit::kCut;
    constexpr auto kWhole = PathBuffer::Fit::kWhole;
    const struct {
        size_t length;
        PathBuffer::Fit fit;
        bool isTaken;
        std::string end;  // of the path afterwards, from where it was
    } rows[] = {
        {3, kCut, true, "/ab"},      {2044, kCut, true, "/ab"}, {2045, kCut, true, "/a"},
        {2046, kCut, false, ""},     {2047, kCut, false, ""},   {3000, kCut, false, ""},
        {2044, kWhole, true, "/ab"}, {2045, kWhole, false, ""}, {2047, kWhole, false, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.length << (row.fit == kCut ? " cut" : " whole"));
        const std::string kept(std::min<size_t>(row.length, 2047), 'p');
        PathBuffer path(std::string(row.length, 'p').c_str());
        EXPECT_EQ(path.appendEntry("ab", row.fit), row.isTaken);
        EXPECT_EQ(path.c_str(), kept + row.end);
        path.cut(kept.size());
        EXPECT_EQ(path.c_str(), kept);
    }
    PathBuffer cut("/");
    PathBuffer whole("/");
    EXPECT_TRUE(cut.appendEntry("a", kCut) && whole.appendEntry("a", kWhole));
    EXPECT_STREQ(cut.c_str(), "/a");
    EXPECT_STREQ(whole.c_str(), "//a") << "archives count names from behind the slash";
}

TEST(OpenRegular, ADescriptorOfZeroIsOne) {
    const TempTree tree;
    plant(tree.path(), {"file=x"});
    const int standardInput = dup(0);
    close(0);
    for (int round = 0; round < 2; ++round) {
        UniqueFd file = openRegular(Place((tree / "file").c_str()));
        EXPECT_TRUE(file.isOpen() && file.get() == 0) << "the first was closed with its owner";
        file = openRegular(Place((tree / "file").c_str()));
    }
    dup2(standardInput, 0);
    close(standardInput);
}

// The thread sanitizer holds back signals until it likes.
#if defined(__has_feature)
constexpr bool kSignalsComeAtOnce = !__has_feature(thread_sanitizer);
#else
constexpr bool kSignalsComeAtOnce = true;
#endif

// What a lease's holder does when it is asked to give it up. The signal reaches the thread that
// opens the file, before the library goes on.
int gLeased = -1;
const char* gPath = nullptr;
const char* gReplacement = nullptr;
void giveUpLease(int /*signal*/) {
    const int error = errno;
    if (gReplacement != nullptr) {
        rename(gReplacement, gPath);
    }
    close(gLeased);
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
    const std::string fifo = tree / "fifo";
    plant(tree.path(), {"file=x", "fifo|"});
    gPath = path.c_str();
    for (const char* replacement : {static_cast<const char*>(nullptr), fifo.c_str()}) {
        if (replacement != nullptr && !kSignalsComeAtOnce) {
            break;
        }
        gReplacement = replacement;
        gLeased = open(gPath, O_RDWR | O_CLOEXEC);
        const f_owner_ex self = {F_OWNER_TID, gettid()};
        ASSERT_EQ(fcntl(gLeased, F_SETOWN_EX, &self), 0);
        ASSERT_EQ(fcntl(gLeased, F_SETSIG, SIGUSR1), 0);
        ASSERT_EQ(fcntl(gLeased, F_SETLEASE, F_WRLCK), 0);
        const Descriptors before = countDescriptors();
        const UniqueFd file = openRegular(Place(gPath));
        char content = '\0';
        EXPECT_EQ(file.isOpen() && read(file.get(), &content, 1) == 1 && content == 'x',
                  replacement == nullptr);
        EXPECT_EQ(countDescriptors().inherited, before.inherited);
        EXPECT_EQ(countDescriptors().open, before.open - (replacement == nullptr ? 0 : 1));
    }
}

}  // namespace
}  // namespace peltex_test
