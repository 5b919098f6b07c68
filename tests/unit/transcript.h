// The commands of the library's transcripts (unit/text_test.h tells how these are read).
//
//   $ plant d/f=1                   a tree afresh (unit/tree_text.h), for which @ stands
//   $ backup file @/d/f @/out = 0   a task as the task loop runs it, and its result; below in its
//   label @/out info 10123 4        order what is logged, from information on and what "Failed",
//                                   relabelled (path, information, uid, flags), told to the client
//   $ show @/out = f*=1             what is there
//   $ when unlink @/d/f at label    from now on, at events that begin so
//
// '' is an empty word, null no path, {n*99} ninety-nine times "n", \s a blank, \r \n \0 what they
// are in C++, ~2046 a path of the tree of that length, <d/f> the record of an entry.
#pragma once

#include <host/relabel_observer.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <string>

#include "service/backup_session_manager.h"
#include "tests/support/test_client.h"
#include "tests/unit/text_test.h"
#include "tests/unit/tree_text.h"

namespace peltex_test {

// Descriptors that a program started now would inherit, and those that are open.
struct Descriptors {
    int inherited = 0;
    int open = 0;
};
Descriptors countDescriptors();

const char* pathOf(const std::string& word);  // of "null": none

class Transcript : public TextTest {
  public:
    using Command = std::function<std::string(const Lines& words)>;

    Transcript();
    ~Transcript() override;

    // Takes down what happens while a command runs. Every descriptor that is open then closes when
    // another program starts.
    void hear(const std::string& event);

    // Adds a command that has no result.
    void act(const char* name, const std::function<void(const Lines& words)>& action);

    android::sp<android::installd::BackupTask> makeTask(android::installd::BackupTaskType type,
                                                        const Lines& words) const;

    std::map<std::string, Command> commands;
    std::string meaning(std::string word) const;  // of a word of a command
    TempTree tree;
    const android::sp<TestClient> client;
    const android::sp<android::installd::BackupSessionManager> manager;
    using TextTest::events;  // of the present command
    bool isAborted = false;
    std::string refused;  // whose relabelling is refused

  private:
    std::string run(const std::string& command) override;
    std::string recordOf(const std::string& name) const;
    void shorten(std::string& text) const;

    const Descriptors mBefore = countDescriptors();
    std::string mMoment;
    std::function<void()> mAction;
    const android::host::ScopedRelabelObserver mObserver;
};

// The commands that belong to a folder of the library.
void addArchiveCommands(Transcript& transcript);
void addBoundedCommands(Transcript& transcript);
void addBriefCommands(Transcript& transcript);
void addFileCommands(Transcript& transcript);  // of base/ and fileops/
void addBoundaryCommands(Transcript& transcript);

}  // namespace peltex_test
