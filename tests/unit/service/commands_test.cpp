#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

using android::installd::BackupSessionManager;

[[maybe_unused]] const bool kAreRegistered = [] {
    registerTexts("service/commands.md", [] { return static_cast<TextTest*>(new ServiceTest()); });
    return true;
}();

TEST_F(ServiceTest, CommandLinesOfAnyCharactersAndLength) {
    std::string backups;
    for (int i = 0; i < 100; ++i) {
        backups += "backup ";
    }
    const std::string endless(1 << 20, 'x');
    const std::tuple<std::string, int32_t, Lines> rows[] = {
        {"    ", -3, {"unsupported command ''\n"}},
        {"backup\ttar", -3, {"unsupported command 'backup\ttar'\n"}},
        {"keepalive\n", -3, {"unsupported command 'keepalive\n'\n"}},
        {"\xff\xfe", -3, {"unsupported command '\xff\xfe'\n"}},
        {endless, -3, {"unsupported command '" + endless}},
        {std::string(1 << 20, ' ') + "delay 1", 0, {}},
        {backups, -3, {"backup requires 5 arguments (99 given)\n"}},
    };
    play("open s");
    for (const auto& [line, result, error] : rows) {
        SCOPED_TRACE(line.substr(0, 80));
        log.clear();
        EXPECT_EQ(execute(sessions["s"], line), result);
        ASSERT_EQ(errors().size(), error.size());
        EXPECT_TRUE(error.empty() || errors()[0].substr(0, 80) == error[0].substr(0, 80));
    }
}

TEST_F(ServiceTest, WordsAreSeparatedInTheCallersOwnString) {
    std::string line = "  delay  1 ";
    play("open s");
    EXPECT_EQ(manager->executeBackupTask(sessions["s"], line), 0);
    EXPECT_EQ(line, std::string("  delay\0 1\0", 11));
    EXPECT_EQ(logged(ANDROID_LOG_DEBUG).at(5), "BackupSessionManager args[1] is 1");
}

TEST(PriorityByWeight, FallsFromTenToNineteenAndRoundsAtTheHalf) {
    const std::pair<int32_t, int32_t> rows[] = {{100, 10}, {95, 10},       {94, 11}, {50, 15},
                                                {6, 18},   {5, 19},        {0, 19},  {-1, 10},
                                                {101, 10}, {INT32_MIN, 10}};
    for (const auto& [weight, priority] : rows) {
        EXPECT_EQ(BackupSessionManager::getPrioritybyWeight(weight), priority) << weight;
    }
}

}  // namespace
}  // namespace peltex_test
