#include <gtest/gtest.h>

#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

using android::installd::BackupSessionManager;
using Lines = std::vector<std::string>;

class CommandsTest : public ServiceTest {
  protected:
    const int32_t session = manager->startBackupSession(client);
};

TEST_F(CommandsTest, LinesThatQueueNothing) {
    const std::string paths = " /data/data/a /data/data/b ";
    const struct {
        const char* name;
        std::string line;
        int32_t result;
        Lines errors;
    } rows[] = {
        {"empty", "", -3, {"unsupported command ''\n"}},
        {"blanks alone", "    ", -3, {"unsupported command ''\n"}},
        {"other case", "Abort 1", -3, {"unsupported command 'Abort'\n"}},
        {"tabs are part of a word", "backup\ttar", -3, {"unsupported command 'backup\ttar'\n"}},
        {"newlines are part of a word", "keepalive\n", -3, {"unsupported command 'keepalive\n'\n"}},
        {"bytes above 127", "\xff\xfe", -3, {"unsupported command '\xff\xfe'\n"}},
        {"four arguments",
         "backup tar" + paths + "s",
         -3,
         {"backup requires 5 arguments (4 given)\n"}},
        {"seven arguments",
         "backup split" + paths + "1 s 0 x",
         -3,
         {"backup requires 5 arguments (7 given)\n"}},
        {"six arguments, for backup only",
         "restore tar" + paths + "s 0 x",
         -3,
         {"restore requires 5 arguments (6 given)\n"}},
        {"keepalive takes no argument",
         "keepalive 100",
         -3,
         {"keepalive requires 0 arguments (1 given)\n"}},
        {"unknown kind of backup", "backup tgz" + paths + "s 0", -3, {}},
        {"byfile is no restore", "restore byfile" + paths + "s 0", -3, {}},
        {"byfile has no short form", "backup b" + paths + "s 0", -3, {}},
        {"unknown kind of brief", "get_brief tar" + paths + "s 0", 0, {}},
        {"move of nothing", "move dir /data/data/none /data/data/b s 0", 0, {}},
        {"delay", "delay 500", 0, {}},
        {"delay of no number", "delay soon", 0, {}},
        {"nothing to keep alive", "keepalive", -2, {}},
        {"abort of an unknown task", "abort 4711", -1, {"task 4711 is invalidated"}},
        {"abort, octal", "abort 0144", -1, {"task 100 is invalidated"}},
        {"abort, no binary digits", "abort 0b1100100", -1, {"task 0 is invalidated"}},
        {"abort, hexadecimal", "abort 0x64", -1, {"task 100 is invalidated"}},
        {"abort of no number", "abort x", -1, {"task 0 is invalidated"}},
        {"abort, beyond 64 bits", "abort 99999999999999999999", -1, {"task -1 is invalidated"}},
        {"weight", "setweight tar 50", 0, {}},
        {"weight, short option", "setweight t 0", 0, {}},
        {"weight too large", "setweight tar 101", -1, {"setWeight:101 exceed 0~100!!"}},
        {"weight negative", "setweight tar -1", -1, {"setWeight:-1 exceed 0~100!!"}},
        {"weight of something else", "setweight dir 50", -3, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        EXPECT_EQ(execute(session, row.line), row.result);
        EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR), row.errors);
    }
    EXPECT_EQ(manager->checkIsRunning(), 0);
    EXPECT_TRUE(client->statuses().empty());
}

TEST_F(CommandsTest, LongLinesAreTakenWhole) {
    std::string words;
    for (int i = 0; i < 100; ++i) {
        words += "backup ";
    }
    EXPECT_EQ(execute(session, words), -3);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR),
              Lines{"backup requires 5 arguments (99 given)\n"});
    EXPECT_EQ(execute(session, std::string(1 << 20, 'x')), -3);
    EXPECT_EQ(execute(session, std::string(1 << 20, ' ') + "delay 1"), 0);
}

TEST_F(CommandsTest, UnknownSessionIsRefusedBeforeTheLineIsRead) {
    EXPECT_EQ(execute(session + 1, "delay 1"), -1);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR), Lines{"invalid session id = 101"});
}

TEST_F(CommandsTest, WordsAreSeparatedInTheCallersOwnString) {
    std::string line = "  delay  1 ";
    EXPECT_EQ(manager->executeBackupTask(session, line), 0);
    EXPECT_EQ(line, std::string("  delay\0 1\0", 11));
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_DEBUG)[5], "BackupSessionManager args[1] is 1");
}

TEST_F(CommandsTest, SessionsAndTasksShareOneCounter) {
    EXPECT_EQ(session, 100);
    EXPECT_EQ(addCopy(session, "a"), 101);
    EXPECT_EQ(manager->startBackupSession(client), 102);
    EXPECT_EQ(execute(session, "restore nothing a b s 0"), -3);
    EXPECT_EQ(addCopy(session, "b"), 103);
    EXPECT_EQ(client->waitForEnd(103), 0);
}

TEST_F(CommandsTest, DuplicatesAreRefusedWhileQueuedOrRunningWhoeverAsks) {
    const int32_t other = manager->startBackupSession(client);
    const int32_t running = runBlocked(session, "one");
    runBlocked(session, "two");
    const int32_t queued = addCopy(session, "three");
    log.clear();
    EXPECT_EQ(execute(other, "backup f " + (tree / "one") + " " + (tree / "out") + " t 7 x"), -4);
    EXPECT_EQ(addCopy(other, "three"), -4);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR), Lines(2, "failed to add task, task is existed!"));
    EXPECT_GT(execute(other, "restore file " + (tree / "three") + " " + (tree / "out") + " s 0"), 0)
        << "another kind of task is another task";
    letGo("one");
    letGo("two");
    EXPECT_EQ(client->waitForEnd(queued), 0);
    EXPECT_EQ(client->waitForEnd(running), 0);
    EXPECT_TRUE(eventually([&] { return addCopy(other, "three") > 0; }));
}

TEST_F(CommandsTest, UidIsReadWithItsBase) {
    const struct {
        const char* text;
        const char* owner;
    } rows[] = {{"10123", "10123:10123 771"},
                {"0x2775", "10101:10101 771"},
                {"010", "8:8 771"},
                {"none", "0:0 771"},
                {"4294977419", "10123:10123 771"}};
    writeFile(tree / "file", "x");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const std::string out = tree / ("out" + std::string(row.text));
        const int32_t task =
            execute(session, "backup file " + (tree / "file") + " " + out + " s " + row.text);
        ASSERT_EQ(client->waitForEnd(task), 0);
        EXPECT_EQ(ownerAndMode(out + "/file"), row.owner);
    }
}

TEST_F(CommandsTest, AbortTakesAPendingTaskAwayWithoutACallback) {
    runBlocked(session, "one");
    runBlocked(session, "two");
    const int32_t queued = addCopy(session, "three");
    EXPECT_EQ(execute(session, "abort " + std::to_string(queued)), 0);
    EXPECT_EQ(execute(session, "abort " + std::to_string(queued)), -1);
    letGo("one");
    letGo("two");
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    EXPECT_TRUE(workersEnd());
    EXPECT_TRUE(client->statusesOf(queued).empty());
    EXPECT_FALSE(exists(tree / "out/three"));
}

TEST_F(CommandsTest, AbortOfARunningTaskIsToldAtOnceAndEndsItsWorker) {
    const int32_t task = runBlocked(session, "one");
    const int32_t other = manager->startBackupSession(client);
    EXPECT_EQ(execute(other, "abort " + std::to_string(task)), 0) << "any session may";
    EXPECT_EQ(client->statusesOf(task), (Lines{"1 processTask start", "2 "}));
    letGo("one");
    EXPECT_EQ(client->waitForEnd(task), 0) << "a plain copy runs to its end";
    EXPECT_TRUE(workersEnd());
}

TEST(PriorityByWeight, FallsFromTenToNineteenAndRoundsAtTheHalf) {
    const struct {
        int32_t weight;
        int32_t priority;
    } rows[] = {{100, 10}, {95, 10}, {94, 11}, {50, 15},  {6, 18},
                {5, 19},   {0, 19},  {-1, 10}, {101, 10}, {INT32_MIN, 10}};
    for (const auto& row : rows) {
        EXPECT_EQ(BackupSessionManager::getPrioritybyWeight(row.weight), row.priority)
            << row.weight;
    }
}

}  // namespace
}  // namespace peltex_test
