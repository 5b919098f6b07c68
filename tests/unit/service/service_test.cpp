#include "tests/unit/service/service_test.h"

#include <algorithm>
#include <regex>
#include <sstream>

#include "tests/unit/tree_text.h"

namespace peltex_test {

void ServiceTest::TearDown() {
    // A split backup that pauses behind the end of its session is not woken by it.
    setWaits(WaitLength::kShort);
    for (const auto& [name, session] : sessions) {
        manager->finishBackupSession(session);
    }
    for (const std::string& fifo : mFifos) {
        giveUp(fifo);
    }
}

int32_t ServiceTest::execute(int32_t session, const std::string& command, const std::string& name) {
    return execute(session, command + " " + (tree / name) + " " + (tree / "out") +
                                (command.rfind("backup s", 0) == 0 ? " 1 s 0" : " s 0"));
}

void ServiceTest::giveUp(const std::string& fifo) {
    const int writer = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    unlink(fifo.c_str());
    close(writer);
}

Lines ServiceTest::logged(int priority) const {
    Lines messages;
    for (const auto& line : log.lines()) {
        if (line.priority == priority) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

const android::sp<TestClient>& ServiceTest::clientOf(const std::string& name) {
    if (mClients.count(name) == 0) {
        mClients[name] = new TestClient();
    }
    return mClients[name];
}

void ServiceTest::play(const std::string& script) {
    std::istringstream steps(script);
    for (std::string step; std::getline(steps >> std::ws, step, ';');) {
        SCOPED_TRACE(step);
        const size_t equals = std::min(step.find(" ="), step.size());
        EXPECT_EQ(run(step.substr(0, equals)), step.substr(std::min(equals + 1, step.size())));
    }
}

std::string ServiceTest::run(const std::string& command) {
    const std::string others =
        "free die end told workers waits there gone length write show id info";
    const size_t errorsBefore = errors().size();
    std::string results;
    std::istringstream steps(command);
    for (std::string step; std::getline(steps >> std::ws, step, ';');) {
        std::istringstream words(step);
        std::string verb;
        std::string session;
        std::string name;
        words >> verb;
        if (others.find(verb) == others.npos) {
            words >> session;
        }
        verb == "say" || verb == "type" ? std::getline(words >> std::ws, name) : words >> name;
        do {
            const std::string result = act(verb, session, name);
            results += result == "0" || result.empty() ? "" : " " + result;
        } while (words >> name);
    }
    events = errors();
    events.erase(events.begin(), command.find("say ") == command.npos
                                     ? events.end()
                                     : events.begin() + static_cast<long>(errorsBefore));
    for (std::string& error : events) {
        error = std::regex_replace(error, std::regex(tree.path()), "@");
        error = std::regex_replace(error, std::regex("\n"), "\\n");
    }
    return results.empty() ? "" : "=" + results;
}

const android::sp<TestClient>& ServiceTest::hearerOf(const std::string& task) {
    return clientOf(task.substr(0, task.find('/') + 1 == 0 ? 0 : task.find('/')));
}

std::string ServiceTest::act(const std::string& verb, const std::string& session,
                             const std::string& name) {
    const int32_t id = session.empty() ? 0 : sessions[session];
    int32_t result = 0;
    if (verb == "open") {
        sessions[session] = manager->startBackupSession(clientOf(name));
        mHears = name;
    } else if (verb == "copy") {
        writeFile(tree / name, name);
        return queued(name, execute(id, "backup file", name));
    } else if (verb == "queue" || verb == "block") {
        makeNode(tree / name, S_IFIFO);
        mFifos.push_back(tree / name);
        const std::string answer = queued(name, execute(id, "backup file", name));
        return verb == "queue" || clientOf(mHears)->waitFor(tasks[name], 1) == 1 ? answer : "none";
    } else if (verb == "split") {
        return queued(name, execute(id, "backup split", name));
    } else if (verb == "pause") {
        writeFile(tree / name + "/file", std::string((2u << 20) + 1, 'c'));
        return thenWaits("split", session, name);
    } else if (verb == "next" || verb == "keep") {
        return thenWaits(verb == "next" ? "split" : "keepalive", session, name);
    } else if (verb == "abort") {
        result = execute(id, "abort " + std::to_string(tasks[name]));
    } else if (verb == "say") {
        result = execute(id, std::regex_replace(name, std::regex("@"), tree.path()));
        if (result > 0) {
            tasks["said"] = result;
            return "task";
        }
    } else if (verb == "keepalive") {
        result = execute(id, verb);
    } else if (verb == "finish") {
        result = manager->finishBackupSession(id);
    } else if (verb == "die") {
        clientOf(name)->die();
    } else if (verb == "free") {
        result = close(open((tree / name).c_str(), O_WRONLY));
    } else if (verb == "end") {
        result = hearerOf(name)->waitForEnd(tasks[name.substr(name.find('/') + 1)]);
    } else if (verb == "told") {
        return told(name);
    } else if (verb == "workers") {
        const int32_t count = std::stoi(name);
        const bool isSo = eventually([&] { return manager->checkIsRunning() == count; });
        result = isSo ? 0 : manager->checkIsRunning();
    } else if (verb == "write") {
        writeFile(tree / name, "x");
    } else if (verb == "show") {
        return joined(shown(tree / name), " ");
    } else if (verb == "info") {
        return logged(ANDROID_LOG_INFO).back();
    } else if (verb == "id") {
        result = tasks[name];
    } else if (verb == "type") {
        // Of a name of its own: the last status precedes the moment in which the task is gone.
        const std::string in = "in" + name.substr(name.find(' ') + 1);
        writeFile(tree / in + "/file", "x");
        client->waitForEnd(execute(id, name, in));
        const std::string isDone = "taskType is ";
        const std::string debug = joined(logged(ANDROID_LOG_DEBUG), "\n");
        result = std::stoi(debug.substr(debug.rfind(isDone) + isDone.size()));
    } else if (verb == "length") {
        setWaits(name == "short" ? WaitLength::kShort : WaitLength::kEndless);
    } else if (verb == "waits") {
        result = waitsBegun() - mWaitsBefore;
    } else if (verb == "there" || verb == "gone") {
        result = !eventually([&] { return exists(tree / name) == (verb == "there"); });
    } else {
        ADD_FAILURE() << "no such verb: " << verb;
    }
    return std::to_string(result);
}

std::string ServiceTest::queued(const std::string& name, int32_t result) {
    if (result < 0) {
        return std::to_string(result);
    }
    const bool isSame = tasks.count(name) != 0 && tasks[name] == result;
    tasks[name] = result;
    return isSame ? "same" : "0";
}

std::string ServiceTest::thenWaits(const std::string& verb, const std::string& session,
                                   const std::string& name) {
    const int before = waitsBegun();
    const std::string result = act(verb, session, name);
    EXPECT_TRUE(eventually([&] { return waitsBegun() > before; }));
    return result;
}

std::string ServiceTest::told(const std::string& name) {
    Lines texts = hearerOf(name)->statusesOf(tasks[name.substr(name.find('/') + 1)]);
    std::sort(texts.begin(), texts.end());  // a worker and an abort tell at the same time
    std::string all;
    for (const std::string& text : texts) {
        if (text[0] != '3' && text != "1 processTask start") {
            const size_t at = text.find(tree.path() + "/out/");
            all += (all.empty() ? "" : ", ") +
                   (at == std::string::npos ? text : "4 " + text.substr(tree.path().size() + 7));
        }
    }
    return all.substr(0, all.find_last_not_of(' ') + 1);
}

}  // namespace peltex_test
