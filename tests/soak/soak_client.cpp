#include "tests/soak/soak_client.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "service/peltexinstalld.h"

namespace fs = std::filesystem;

namespace peltex_soak {

namespace {

const std::string kRoot = "/data/data/soak";
const std::string kApp = kRoot + "/app";
const std::string kBig = kRoot + "/big";
const std::string kMade = kRoot + "/made";
const std::string kSearch = kRoot + "/search";

constexpr size_t kMaxSessions = 3;
constexpr size_t kMaxJobs = 6;  // of open sessions
constexpr size_t kRecent = 16;
constexpr std::chrono::milliseconds kPatience{2};

bool isOneIn(std::mt19937_64& random, unsigned count) {
    return random() % count == 0;
}

void writeFile(const std::string& path, size_t size) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << std::string(size, 'x');
}

// "#" in a path of a recipe stands for the task's own directory.
std::string inDirectory(std::string path, const std::string& directory) {
    return path[0] == '#' ? path.replace(0, 1, directory) : path;
}

// The words behind the paths: a split backup has its slice size, of 1 MiB, in front.
std::string lineOf(const std::string& command, const std::string& source,
                   const std::string& destination, bool isSplit) {
    return command + " " + source + " " + destination + (isSplit ? " 1" : "") + " default 10123";
}

// The line is split in place: what the service gets is a copy.
int32_t execute(int32_t session, const std::string& line) {
    const std::string copy(line.data(), line.size());
    return executeBackupTask(session, copy);
}

}  // namespace

// --- The client's process ---

android::sp<Process> CommonProcess::get() {
    const std::lock_guard<std::mutex> lock(mLock);
    return mProcess;
}

void CommonProcess::die() {
    android::sp<Process> next = new Process(mLedger);
    {
        const std::lock_guard<std::mutex> lock(mLock);
        std::swap(mProcess, next);
    }
    mLedger.deathBegins();
    next->die();
    mLedger.deathEnds();
}

// --- What tasks read ---

bool runTask(Ledger& ledger, Kind kind, const std::string& line) {
    const int32_t session = startBackupSession(new Process(ledger));
    ledger.opened(session, ledger.deaths());
    const int32_t task = execute(session, line);
    ledger.accepted(task, session, kind, Outcome::kSuccess, line);
    while (!ledger.isOver(task)) {
        ledger.waitForStatus(kPatience);
    }
    ledger.finishBegins(session);
    ledger.finishEnds(session, finishBackupSession(session));
    return ledger.succeeded(task);
}

bool makeSources(Ledger& ledger) {
    writeFile(kApp + "/small", 100);
    writeFile(kApp + "/large", 100000);
    writeFile(kApp + "/empty", 0);
    writeFile(kApp + "/code.dex", 50);
    writeFile(kApp + "/d/nested", 3000);
    fs::create_symlink("small", kApp + "/link");
    mkfifo((kApp + "/fifo").c_str(), 0600);
    writeFile(kBig + "/big", 1200000);
    writeFile(kBig + "/behind", 200000);
    fs::create_directories(kMade);
    std::ofstream(kSearch) << "[include]" << kApp << "\n[include]" << kBig << "/big\n[exclude]"
                           << kApp << "/d\n";

    return runTask(ledger, Kind::kBackupTar, lineOf("backup tar", kApp, kMade, false)) &&
           runTask(ledger, Kind::kBackupDir, lineOf("backup dir", kApp, kMade, false)) &&
           runTask(ledger, Kind::kBriefDir, lineOf("get_brief dir", kApp, kMade + "/brief", false));
}

// --- The client ---

struct Client::Recipe {
    Kind kind;
    const char* command;
    std::string source;
    std::string destination;
    unsigned weight;
    Outcome outcome = Outcome::kSuccess;
};

const Client::Recipe Client::kRecipes[] = {
    {Kind::kBackupFile, "backup file", kApp + "/large", "#/out", 13},
    {Kind::kBackupDir, "backup dir", kApp, "#/out", 10},
    {Kind::kBackupTar, "backup tar", kApp, "#/out", 13},
    {Kind::kBackupSplit, "backup split", kBig, "#/out", 6},
    {Kind::kRestoreFile, "restore file", kApp + "/small", "#/out/file", 13},
    {Kind::kRestoreDir, "restore dir", kMade, "#/out/app", 9},
    {Kind::kRestoreTar, "restore tar", kMade + "/app.tar", "#/out", 10},
    {Kind::kRestoreSplit, "restore split", "#/app.tar.txt", "#/out/app", 6},
    {Kind::kMove, "move dir", "#/in", "#/out", 8},
    {Kind::kBackupByFile, "backup byfile", kMade + "/brief", "#/out/app", 7},
    {Kind::kBriefDir, "get_brief dir", kApp, "#/out/brief", 2},
    {Kind::kBriefByFile, "get_brief byfile", kSearch, "#/out/brief", 8},
    {Kind::kBackupTar, "backup tar", "/data/app/none", "#/out", 2, Outcome::kFailure},
    {Kind::kRestoreFile, "restore file", "#/none", "#/out", 2, Outcome::kFailure},
    {Kind::kBackupFile, "backup file", "/data/data/../x", "#/out", 1, Outcome::kFailure},
};

struct Client::Action {
    void (Client::*act)();
    unsigned weight;
};

const Client::Action Client::kActions[] = {
    {&Client::addTask, 1000},      {&Client::addEqualTask, 80}, {&Client::abortTask, 25},
    {&Client::keepAlive, 20},      {&Client::setDelay, 10},     {&Client::setWeight, 20},
    {&Client::sendMalformed, 20},  {&Client::sendToClosed, 10}, {&Client::openSession, 6},
    {&Client::closeAnySession, 4}, {&Client::serveSplit, 600},  {&Client::die, 1},
};

namespace {

// The row that a number below the sum of all weights falls into.
template <typename Rows>
const auto& pick(const Rows& rows, std::mt19937_64& random) {
    uint64_t sum = 0;
    for (const auto& row : rows) {
        sum += row.weight;
    }
    uint64_t left = random() % sum;
    auto row = std::begin(rows);
    for (; left >= row->weight; ++row) {
        left -= row->weight;
    }
    return *row;
}

}  // namespace

Client::Client(Ledger& ledger, CommonProcess& common, size_t number, uint64_t seed)
    : mLedger(ledger), mCommon(common), mNumber(number), mRandom(seed) {}

Client::~Client() {
    while (!mSessions.empty()) {
        closeSession(mSessions.back());
    }
}

void Client::act() {
    dropFinished();
    (this->*pick(kActions, mRandom).act)();
}

void Client::dropFinished() {
    const auto over = std::partition(mJobs.begin(), mJobs.end(),
                                     [this](const Job& job) { return !mLedger.isOver(job.task); });
    for (auto job = over; job != mJobs.end(); ++job) {
        // A backup that somebody's late continuation began may be writing there.
        std::error_code notEmpty;
        fs::remove_all(job->directory, notEmpty);
    }
    mJobs.erase(over, mJobs.end());
}

// --- Sessions ---

void Client::openSession() {
    if (mSessions.size() == kMaxSessions) {
        return;
    }
    // Now and then a process of its own, to which all statuses go from then on.
    const android::sp<Process> process =
        isOneIn(mRandom, 8) ? android::sp<Process>(new Process(mLedger)) : mCommon.get();
    const uint32_t deaths = mLedger.deaths();
    const int32_t session = startBackupSession(process);
    mLedger.opened(session, deaths);
    mSessions.push_back(session);
}

void Client::closeSession(int32_t session) {
    mLedger.finishBegins(session);
    mLedger.finishEnds(session, finishBackupSession(session));
    forget(session);
    mLastClosed = session;
}

int32_t Client::anySession() {
    if (mSessions.empty()) {
        openSession();
    }
    return mSessions[below(mSessions.size())];
}

void Client::forget(int32_t session) {
    mSessions.erase(std::remove(mSessions.begin(), mSessions.end(), session), mSessions.end());
}

// --- Commands ---

void Client::command(const std::string& line, const std::vector<int32_t>& expected) {
    const int32_t session = anySession();
    const int32_t result = execute(session, line);
    if (std::find(expected.begin(), expected.end(), result) != expected.end()) {
        return;
    }
    if (result == -1 && mLedger.mayBeClosed(session)) {
        forget(session);
        return;
    }
    mLedger.fault("\"" + line.substr(0, 80) + "\" gave " + std::to_string(result));
}

void Client::submit(Kind kind, Outcome outcome, const std::string& line,
                    const std::string& directory, bool mayBeRefused) {
    const int32_t session = anySession();
    const int32_t result = execute(session, line);
    if (result >= 100) {
        mLedger.accepted(result, session, kind, outcome, line);
        mJobs.push_back({result, session, directory});
        mRecent.push_back(result);
        if (mRecent.size() > kRecent) {
            mRecent.pop_front();
        }
    } else if (result == -1 && mLedger.mayBeClosed(session)) {
        forget(session);
    } else if (result != -4 || !mayBeRefused) {
        mLedger.fault("\"" + line + "\" gave " + std::to_string(result));
    }
}

void Client::addTask() {
    const auto open = std::count_if(mJobs.begin(), mJobs.end(), [this](const Job& job) {
        return std::find(mSessions.begin(), mSessions.end(), job.session) != mSessions.end();
    });
    if (static_cast<size_t>(open) >= kMaxJobs) {
        mLedger.waitForStatus(kPatience);
        return;
    }
    const Recipe& recipe = pick(kRecipes, mRandom);
    const std::string directory =
        kRoot + "/" + std::to_string(mNumber) + "/" + std::to_string(mDirectories++);
    fs::create_directories(directory + "/out");
    if (recipe.kind == Kind::kMove) {
        writeFile(directory + "/in/file", 500);
        writeFile(directory + "/in/d/nested", 10);
    } else if (recipe.kind == Kind::kRestoreSplit) {
        fs::copy_file(kMade + "/app.tar", directory + "/app.tar.0");
        std::ofstream(directory + "/app.tar.txt")
            << "app.tar.0|" << fs::file_size(directory + "/app.tar.0") << "\n";
    }
    submit(recipe.kind, recipe.outcome,
           lineOf(recipe.command, inDirectory(recipe.source, directory),
                  inDirectory(recipe.destination, directory), recipe.kind == Kind::kBackupSplit),
           directory, false);
}

// Of the same few as every other client adds: some are refused, some run into each other.
void Client::addEqualTask() {
    const Recipe& recipe = kRecipes[below(3)];
    const std::string directory = kRoot + "/common" + std::to_string(below(3));
    fs::create_directories(directory + "/out");
    submit(recipe.kind, Outcome::kAny,
           lineOf(recipe.command, recipe.source, inDirectory(recipe.destination, directory), false),
           "", true);
}

// Most paused backups are continued by whoever comes along; one in 32 is left to its time-out.
void Client::serveSplit() {
    std::string line;
    const int32_t task = mLedger.pausedSplit(mRandom, &line);
    if (task == 0 || task % 32 == 0) {
        return;
    }
    isOneIn(mRandom, 16) ? abort(task) : continueSplit(task, line);
}

// Behind the end of the backup, its continuation begins another one.
void Client::continueSplit(int32_t task, const std::string& line) {
    const auto own = std::find_if(mJobs.begin(), mJobs.end(),
                                  [task](const Job& job) { return job.task == task; });
    submit(Kind::kBackupSplit, Outcome::kAny, line, own == mJobs.end() ? "" : own->directory, true);
}

void Client::abortTask() {
    if (mRecent.empty()) {
        return;
    }
    // One of its own, or whatever has an id near it.
    const int32_t own = mRecent[below(mRecent.size())];
    abort(isOneIn(mRandom, 3) ? std::max(100, own - 10) + static_cast<int32_t>(below(20)) : own);
}

void Client::abort(int32_t task) {
    const int32_t session = anySession();
    mLedger.abortBegins(task);
    const int32_t result = execute(session, "abort " + std::to_string(task));
    mLedger.abortEnds(task, result);
    if (result != 0 && result != -1) {
        mLedger.fault("an abort gave " + std::to_string(result));
    }
}

void Client::keepAlive() {
    command("keepalive", {0, -2});
}

void Client::setDelay() {
    command("delay " + std::to_string(below(100)), {0});
}

void Client::setWeight() {
    const int weight = static_cast<int>(below(103)) - 1;
    command("setweight t " + std::to_string(weight), {weight < 0 || weight > 100 ? -1 : 0});
}

void Client::sendMalformed() {
    static const std::pair<std::string, int32_t> kLines[] = {
        {"", -3},
        {"   ", -3},
        {"backup", -3},
        {"backup\ttar /data/data/a /data/data/b s 0", -3},
        {"backup none /data/data/a /data/data/b s 0", -3},
        {"backup file /data/data/a /data/data/b s 0 x y", -3},
        {"restore byfile /data/data/a /data/data/b s 0", -3},
        {"restore tar /data/data/a /data/data/b s 0 x", -3},
        {"move x /data/data/none /data/data/b s 0", 0},
        {"get_brief tar /data/data/a /data/data/b s 0", 0},
        {"keepalive now", -3},
        {"setweight dir 50", -3},
        {"abort", -3},
        {"abort none", -1},
        {"\xff\xfe \x01", -3},
        {std::string(10000, 'x') + " " + std::string(10000, 'y'), -3},
        {std::string("delay\0 1", 8), -3},
    };
    const auto& [line, result] = kLines[below(std::size(kLines))];
    command(line, {result});
}

void Client::sendToClosed() {
    const int32_t result = execute(isOneIn(mRandom, 2) ? mLastClosed : -1, "delay 1");
    if (result != -1 || finishBackupSession(mLastClosed) != -1) {
        mLedger.fault("a session that is closed, or never was open, answers");
    }
}

void Client::die() {
    mCommon.die();
}

}  // namespace peltex_soak
