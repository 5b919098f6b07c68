#include <algorithm>

#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

using android::installd::BackupSessionManager;

class CommandsTest : public ServiceTest {
  protected:
    const int32_t session = sessions["s"] = manager->startBackupSession(client);
};

TEST_F(CommandsTest, LinesThatQueueNothing) {
    const std::string paths = " /data/data/a /data/data/b ";
    std::string backups;
    for (int i = 0; i < 100; ++i) {
        backups += "backup ";
    }
    const struct {
        std::string line;
        int32_t result;
        std::string error;
    } rows[] = {
        {"", -3, "unsupported command ''\n"},
        {"    ", -3, "unsupported command ''\n"},
        {"Abort 1", -3, "unsupported command 'Abort'\n"},
        {"backup\ttar", -3, "unsupported command 'backup\ttar'\n"},
        {"keepalive\n", -3, "unsupported command 'keepalive\n'\n"},
        {"\xff\xfe", -3, "unsupported command '\xff\xfe'\n"},
        {std::string(1 << 20, 'x'), -3, "unsupported command '" + std::string(1 << 20, 'x')},
        {std::string(1 << 20, ' ') + "delay 1", 0, ""},
        {"backup tar" + paths + "s", -3, "backup requires 5 arguments (4 given)\n"},
        {"backup split" + paths + "1 s 0 x", -3, "backup requires 5 arguments (7 given)\n"},
        {"restore tar" + paths + "s 0 x", -3, "restore requires 5 arguments (6 given)\n"},
        {backups, -3, "backup requires 5 arguments (99 given)\n"},
        {"move dir", -3, "move requires 5 arguments (1 given)\n"},
        {"get_brief dir", -3, "get_brief requires 5 arguments (1 given)\n"},
        {"keepalive 100", -3, "keepalive requires 0 arguments (1 given)\n"},
        {"abort", -3, "abort requires 1 arguments (0 given)\n"},
        {"delay", -3, "delay requires 1 arguments (0 given)\n"},
        {"setweight t", -3, "setweight requires 2 arguments (1 given)\n"},
        {"backup tgz" + paths + "s 0", -3, ""},
        {"backup b" + paths + "s 0", -3, ""},
        {"restore byfile" + paths + "s 0", -3, ""},
        {"get_brief tar" + paths + "s 0", 0, ""},
        {"move dir /data/data/none /data/data/b s 0", 0, ""},
        {"delay soon", 0, ""},
        {"keepalive", -2, ""},
        {"abort 4711", -1, "task 4711 is invalidated"},
        {"abort 0144", -1, "task 100 is invalidated"},
        {"abort 0b1100100", -1, "task 0 is invalidated"},
        {"abort 0x64", -1, "task 100 is invalidated"},
        {"abort x", -1, "task 0 is invalidated"},
        {"abort 99999999999999999999", -1, "task -1 is invalidated"},
        {"setweight tar 50", 0, ""},
        {"setweight t 0", 0, ""},
        {"setweight tar 101", -1, "setWeight:101 exceed 0~100!!"},
        {"setweight tar -1", -1, "setWeight:-1 exceed 0~100!!"},
        {"setweight dir 50", -3, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line.substr(0, 80));
        log.clear();
        EXPECT_EQ(execute(session, row.line), row.result);
        ASSERT_EQ(errors().size(), row.error.empty() ? 0u : 1u);
        EXPECT_EQ(errors().empty() ? "" : errors()[0].substr(0, 80), row.error.substr(0, 80));
    }
    EXPECT_EQ(manager->checkIsRunning(), 0);
    EXPECT_TRUE(client->statuses().empty());
    EXPECT_EQ(execute(session + 1, "delay 1"), -1);
    EXPECT_EQ(errors().back(), "invalid session id = 101");
}

// Each kind by each of its words, told apart by the type that the log names.
TEST_F(CommandsTest, OptionsOfTasks) {
    const std::pair<std::string, int> rows[] = {
        {"backup file", 0},      {"backup f", 0},     {"backup dir", 1},     {"backup d", 1},
        {"backup tar", 2},       {"backup t", 2},     {"backup split", 3},   {"backup s", 3},
        {"backup byfile", 9},    {"restore file", 4}, {"restore f", 4},      {"restore dir", 5},
        {"restore d", 5},        {"restore tar", 6},  {"restore t", 6},      {"restore split", 7},
        {"restore s", 7},        {"move any", 8},     {"get_brief dir", 10}, {"get_brief d", 10},
        {"get_brief byfile", 11}};
    for (const auto& [command, type] : rows) {
        SCOPED_TRACE(command);
        log.clear();
        // Of a name of its own: the last status precedes the moment in which the task is gone.
        const std::string in = "in" + command.substr(command.find(' ') + 1);
        writeFile(tree / in + "/file", "x");
        EXPECT_NE(client->waitForEnd(execute(session, command, in)), TestClient::kNone);
        const std::string isDone = "taskType is " + std::to_string(type) + ",";
        EXPECT_TRUE(eventually([&] {
            const Lines lines = messagesOf(log, ANDROID_LOG_DEBUG);
            return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
                return line.find(isDone) != std::string::npos;
            });
        }));
    }
}

TEST_F(CommandsTest, WordsAreSeparatedInTheCallersOwnString) {
    std::string line = "  delay  1 ";
    EXPECT_EQ(manager->executeBackupTask(session, line), 0);
    EXPECT_EQ(line, std::string("  delay\0 1\0", 11));
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_DEBUG)[5], "BackupSessionManager args[1] is 1");
}

TEST_F(CommandsTest, SessionsAndTasksShareOneCounter) {
    play("copy s a; open t; say s restore nothing a b s 0 = -3; copy s b; end b");
    EXPECT_EQ(session, 100);
    EXPECT_EQ(tasks["a"], 101);
    EXPECT_EQ(sessions["t"], 102);
    EXPECT_EQ(tasks["b"], 103);
}

// Source, destination and kind make a task the same; the other words do not.
TEST_F(CommandsTest, EqualTasks) {
    play("block s one two");
    const std::string from = " " + (tree / "one") + " ";
    EXPECT_EQ(execute(session, "backup f" + from + (tree / "out") + " t 7 x"), -4);
    EXPECT_EQ(errors(), Lines{"failed to add task, task is existed!"});
    EXPECT_GT(execute(session, "backup f" + from + (tree / "out2") + " s 0"), 0);
    EXPECT_GT(execute(session, "restore f" + from + (tree / "out") + " s 0"), 0);
}

TEST_F(CommandsTest, UidIsReadWithItsBase) {
    const std::pair<std::string, std::string> rows[] = {{"10123", "10123:10123"},
                                                        {"0x2775", "10101:10101"},
                                                        {"010", "8:8"},
                                                        {"none", "0:0"},
                                                        {"4294977419", "10123:10123"}};
    writeFile(tree / "in/file", "x");
    for (const auto& [uid, owner] : rows) {
        SCOPED_TRACE(uid);
        const std::string out = " " + (tree / uid) + " ";
        ASSERT_EQ(client->waitForEnd(
                      execute(session, "backup file " + (tree / "in/file") + out + "s " + uid)),
                  0);
        EXPECT_EQ(ownerAndMode(tree / uid + "/file"), owner + " 771");
        ASSERT_EQ(client->waitForEnd(
                      execute(session, "backup split " + (tree / "in") + out + "1 s " + uid)),
                  0);
        EXPECT_EQ(ownerAndMode(tree / uid + "/in.tar.0"), owner + " 660")
            << "one word further behind";
    }
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
