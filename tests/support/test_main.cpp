// The tests run as root over hostile trees, so they refuse to run anywhere but in a root that is
// thrown away afterwards.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const bool isListing = GTEST_FLAG_GET(list_tests);
    if (!isListing && access("/.throw-away-root", F_OK) != 0) {
        fprintf(stderr, "run the tests with scripts/test.sh: it gives them a root of their own\n");
        return 2;
    }
    umask(022);
    return RUN_ALL_TESTS();
}
