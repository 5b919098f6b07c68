// What a fault at a call makes of its task, as the behaviour of the tasks has it.
#pragma once

#include <functional>

#include "tests/faults/task_runs.h"

namespace peltex_test {

enum class Outcome {
    kFails,     // status -1
    kLoses,     // status 0, though something may be missing or other than it should be
    kUnharmed,  // status 0 and the same result as without the fault
    kEither,    // it fails or is unharmed
    kAny,
};

struct Rule {
    unsigned tasks;  // a bit for each type
    Op op;
    const char* place;  // see fault_rules.cpp
    int nth;            // of the same calls of the same entry; 0: each
    Outcome outcome;
    // What an error or warning holds: %s the path, %e the error. Null: nothing; where several
    // outcomes are allowed, needed by all but the unharmed one.
    const char* text;
};

// The rule for a fault at the call of that index, or null.
const Rule* ruleFor(const TaskKind& kind, const std::string& root, const std::vector<Call>& calls,
                    size_t index, Op fault);

// The rule's text for a call. Empty without one.
std::string textOf(const Rule& rule, const Call& call, Op fault);

// Whether one of the lines holds the text; true for an empty one.
bool holds(const std::vector<std::string>& errors, const std::string& text);

// Whether the task has come to what the undisturbed one came to.
bool isSameResult(const TaskRun& run, const TaskRun& reference);

// Looks at everything that holds for each task, whatever happened to it: one final status, the rule
// and its text, the descriptors, the source, the slices that were handed over, the task behind it.
// Tells what does not hold.
using Complaint = std::function<void(const std::string& about)>;
void check(const TaskKind& kind, const TaskRun& run, const TaskRun& reference, const Rule& rule,
           const std::string& text, const Complaint& complain);

}  // namespace peltex_test
