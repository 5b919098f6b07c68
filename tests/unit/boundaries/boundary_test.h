// What a task does to things that it was not asked to touch: a secret and its neighbours outside of
// the allowed areas, a directory beside the destination, and the directory above it.
//
//   <outside>/secret  <outside>/dir/kept  <outside>/empty  <outside>/zeros      in /tmp
//   <tree>/hostile    what the task is given
//   <tree>/to         where it works
//   <tree>/to2/f      beside it
#pragma once

#include <algorithm>
#include <filesystem>
#include <map>

#include "tests/support/fast_waits.h"
#include "tests/support/tar_builder.h"
#include "tests/unit/service/service_test.h"

namespace peltex_test {

using Lines = std::vector<std::string>;

constexpr unsigned kUid = 10123;
inline const std::string kSecret = "what nobody else may read";

class BoundaryTest : public ServiceTest {
  public:
    BoundaryTest() {
        char name[] = "/tmp/outside.XXXXXX";
        outside = mkdtemp(name);
        writeFile(outside + "/secret", kSecret, 0600);
        writeFile(outside + "/dir/kept", "kept");
        writeFile(outside + "/empty", "");
        writeFile(outside + "/zeros", std::string(2 * kBlock, '\0'));
        makeDir(hostile);
        makeDir(to);
        writeFile(beside + "/f", "beside");
        mSession = manager->startBackupSession(client);
    }
    ~BoundaryTest() override {
        manager->finishBackupSession(mSession);
        std::filesystem::remove_all(outside);
    }

    // Queues a task; a split backup's slices are of 1 MiB.
    int32_t start(const std::string& command, const std::string& source,
                  const std::string& destination) {
        const std::string size = command == "backup split" ? " 1" : "";
        return execute(mSession, command + " " + source + " " + destination + size + " default " +
                                     std::to_string(kUid));
    }

    // Runs a task to its end. Returns 0 or -1.
    int32_t run(const std::string& command, const std::string& source,
                const std::string& destination) {
        int32_t task = 0;
        // The last status of an equal task precedes the moment in which it is gone.
        EXPECT_TRUE(eventually([&] {
            task = start(command, source, destination);
            return task != android::installd::COMMAND_DUPLICATE;
        }));
        return client->waitForEnd(task);
    }

    // The same for a split backup that pauses once.
    int32_t runSplit(const std::string& source, const std::string& destination) {
        const int32_t task = start("backup split", source, destination);
        EXPECT_TRUE(eventually([] { return waitsBegun() == 1; }));
        EXPECT_EQ(start("backup split", source, destination), task);
        return client->waitForEnd(task);
    }

    int32_t abort(int32_t task) { return execute(mSession, "abort " + std::to_string(task)); }

    std::string write(const std::string& name, const std::string& content) const {
        writeFile(hostile + "/" + name, content);
        return hostile + "/" + name;
    }

    // A path relative to a directory that is no deeper than twenty levels.
    static std::string climbingTo(const std::string& path) {
        std::string up;
        for (int level = 0; level < 20; ++level) {
            up += "../";
        }
        return up + path.substr(1);
    }

    void remember() { mBefore = look(); }

    // What is not as it was when it was remembered; "secret read" when the destination holds the
    // secret, "secret named" when a brief lists it, "secret logged".
    Lines reached() const {
        Lines lines;
        const std::map<std::string, Entry> now = look();
        for (const auto& [path, entry] : mBefore) {
            const auto found = now.find(path);
            found == now.end() ? lines.push_back(path + ": removed")
                               : tellDifference(path, entry, found->second, lines);
        }
        for (const auto& [path, entry] : now) {
            if (mBefore.count(path) == 0) {
                lines.push_back(path + ": made");
            }
        }
        tellLeaks(lines);
        return lines;
    }

    std::string outside;
    const std::string hostile = tree / "hostile";
    const std::string to = tree / "to";
    const std::string beside = tree / "to2";

  private:
    struct Entry {
        mode_t type;
        std::string ownerAndMode;
        std::string content;
    };

    static Entry entryOf(const std::string& path) {
        Entry entry = {statOf(path).st_mode & S_IFMT, ownerAndMode(path), ""};
        if (entry.type == S_IFREG) {
            entry.content = readFile(path);
        }
        return entry;
    }

    std::map<std::string, Entry> look() const {
        std::map<std::string, Entry> entries = {{"parent", entryOf(tree.path())}};
        for (const auto& [label, directory] :
             {std::pair("outside", outside), std::pair("to2", beside)}) {
            for (const std::string& name : listTree(directory)) {
                const std::string path =
                    name.back() == '/' ? name.substr(0, name.size() - 1) : name;
                entries[label + ("/" + path)] = entryOf(directory + "/" + path);
            }
        }
        return entries;
    }

    static void tellDifference(const std::string& path, const Entry& before, const Entry& now,
                               Lines& lines) {
        if (now.type != before.type) {
            lines.push_back(path + ": replaced");
            return;
        }
        if (now.content != before.content) {
            lines.push_back(path + ": written");
        }
        if (now.ownerAndMode != before.ownerAndMode) {
            lines.push_back(path + ": " + now.ownerAndMode);
        }
    }

    void tellLeaks(Lines& lines) const {
        bool isRead = false;
        bool isNamed = false;
        for (const std::string& name : listTree(to)) {
            const std::string path = to + "/" + name;
            if (S_ISREG(statOf(path).st_mode)) {
                const std::string content = readFile(path);
                isRead = isRead || content.find(kSecret) != std::string::npos;
                isNamed =
                    isNamed || (name == "brief" && content.find("/secret;") != std::string::npos);
            }
        }
        const auto logged = log.lines();
        const bool isLogged = std::any_of(logged.begin(), logged.end(), [](const auto& line) {
            return line.message.find(kSecret) != std::string::npos;
        });
        for (const auto& [is, line] :
             {std::pair(isRead, "secret read"), std::pair(isNamed, "secret named"),
              std::pair(isLogged, "secret logged")}) {
            if (is) {
                lines.push_back(line);
            }
        }
    }

    int32_t mSession = 0;
    std::map<std::string, Entry> mBefore;
};

}  // namespace peltex_test
