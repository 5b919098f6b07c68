// Each call of each kind of task fails or comes short once, and the task does what it is to do
// then. `--table` prints what was done, as docs/TESTING.md holds it.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include "tests/faults/fault_rules.h"

namespace peltex_test {
namespace {

struct Tally {
    int failed = 0;
    int lost = 0;
    int unharmed = 0;
};
using Tallies = std::map<Op, Tally>;

// The call's own operation and, where it can come short, the short one.
std::vector<Op> faultsOf(const Call& call) {
    const Op next = static_cast<Op>(static_cast<int>(call.op) + 1);
    const bool canBeShort =
        call.op == Op::kRead || call.op == Op::kWrite || call.op == Op::kReadLink;
    return canBeShort && call.result > 1 ? std::vector<Op>{call.op, next}
                                         : std::vector<Op>{call.op};
}

// Runs the task with each fault at each of its calls.
Tallies sweep(TaskRunner& runner, const TaskKind& kind, const Complaint& complain) {
    const TaskRun reference = runner.run(kind, {});
    Tallies tallies;
    for (size_t at = 0; at < reference.calls.size(); ++at) {
        for (const Op fault : faultsOf(reference.calls[at])) {
            const TaskRun run = runner.run(kind, {at, fault});
            const Call& call = reference.calls[at];
            const auto complainOf = [&](const std::string& about) {
                std::string text = std::string(kind.name) + ", call " + std::to_string(at) + ", " +
                                   operationName(fault) + " of " + call.path + ": " + about;
                for (const std::string& line : run.errors) {
                    text += "\n    " + line;
                }
                complain(text);
            };
            const Rule* rule = ruleFor(kind, runner.root(), reference.calls, at, fault);
            if (run.calls.size() <= at || run.calls[at].path != call.path) {
                complainOf("is not met");
            } else if (rule == nullptr) {
                complainOf("has no rule");
            } else {
                check(kind, run, reference, *rule, textOf(*rule, call, fault), complainOf);
            }
            Tally& tally = tallies[fault];
            ++(run.status != 0                ? tally.failed
               : isSameResult(run, reference) ? tally.unharmed
                                              : tally.lost);
        }
    }
    return tallies;
}

class FaultSweep : public testing::TestWithParam<TaskKind> {};

TEST_P(FaultSweep, EachFaultHasItsOutcome) {
    TaskRunner::use([](TaskRunner& runner) {
        sweep(runner, GetParam(), [](const std::string& text) { ADD_FAILURE() << text; });
    });
}

std::string testName(const testing::TestParamInfo<TaskKind>& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Tasks, FaultSweep, testing::ValuesIn(kTaskKindTable), testName);

// The table: a row per operation, a column per task.
void printRow(const std::string& name, const std::function<std::string(const TaskKind&)>& cell) {
    printf("| %s |", name.c_str());
    for (const TaskKind& kind : kTaskKindTable) {
        printf(" %s |", cell(kind).c_str());
    }
    printf("\n");
}

void printTable() {
    std::map<const TaskKind*, Tallies> tallies;
    std::set<Op> met;
    TaskRunner::use([&](TaskRunner& runner) {
        for (const TaskKind& kind : kTaskKindTable) {
            tallies[&kind] = sweep(runner, kind, [](const std::string&) {});
            for (const auto& [op, tally] : tallies[&kind]) {
                met.insert(op);
            }
        }
    });
    printRow("call", [](const TaskKind& kind) { return kind.name; });
    printRow("---", [](const TaskKind&) { return "---"; });
    for (const Op op : met) {
        printRow(operationName(op), [&](const TaskKind& kind) -> std::string {
            const auto tally = tallies[&kind].find(op);
            if (tally == tallies[&kind].end()) {
                return "";
            }
            const auto& [failed, lost, unharmed] = tally->second;
            return std::to_string(failed) + "/" + std::to_string(lost) + "/" +
                   std::to_string(unharmed);
        });
    }
}

// The lines of the table that the document holds.
std::vector<std::string> documentedTable() {
    const std::string text = readFile(PELTEX_SOURCE_DIR "/docs/TESTING.md");
    std::istringstream lines(text.substr(std::min(text.find("<!-- fault-table"), text.size())));
    std::vector<std::string> table;
    std::string line;
    while (std::getline(lines, line) && line != "<!-- /fault-table -->") {
        if (line[0] == '|') {
            table.push_back(line);
        }
    }
    return table;
}

// The text of the line's cells.
std::vector<std::string> cellsOf(const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream text(line.substr(2));
    for (std::string word, cell; text >> word;) {
        if (word == "|") {
            cells.push_back(std::exchange(cell, ""));
        } else {
            cell += (cell.empty() ? "" : " ") + word;
        }
    }
    return cells;
}

// Rows and columns are compared, numbers are not: they follow every change of how often the library
// looks at something.
TEST(FaultTable, TheDocumentedOneHasTheRowsAndColumnsOfTheProgram) {
    std::set<std::string> expected = {"call", "---"};
    TaskRunner::use([&](TaskRunner& runner) {
        for (const TaskKind& kind : kTaskKindTable) {
            expected.insert(kind.name);
            for (const Call& call : runner.run(kind, {}).calls) {
                for (const Op fault : faultsOf(call)) {
                    expected.insert(operationName(fault));
                }
            }
        }
    });
    std::set<std::string> documented;
    for (const std::string& line : documentedTable()) {
        const std::vector<std::string> cells = cellsOf(line);
        documented.insert(cells[0]);
        if (cells[0] == "call") {
            documented.insert(cells.begin(), cells.end());
        }
    }
    EXPECT_EQ(documented, expected) << "peltex_faults --table prints the present one";
}

}  // namespace
}  // namespace peltex_test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests) && access("/.throw-away-root", F_OK) != 0) {
        fprintf(stderr, "run the tests with scripts/test.sh: it gives them a root of their own\n");
        return 2;
    }
    umask(022);
    if (argc == 2 && strcmp(argv[1], "--table") == 0) {
        peltex_test::printTable();
        return 0;
    }
    return RUN_ALL_TESTS();
}
