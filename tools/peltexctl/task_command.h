// The subcommands that carry out one task: one session, one command, its events to the end.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "library.h"

namespace peltexctl {

// One kind of task: how people name it and what the library reads.
struct TaskKind {
    const char* subcommand;
    const char* kind;   // empty for a subcommand of one kind
    const char* words;  // the command's first two words
    const char* help;
    // The path under which the bytes lie that the task reads.
    std::string (*content)(const std::string& source, const std::string& destination);
};

struct TaskRequest {
    std::string subcommand;
    std::string kind;
    std::string source;
    std::string destination;
    std::string uid = "0";
    std::string se_info = "default";
};

// The kinds of a subcommand, in the order to show them.
std::vector<const TaskKind*> KindsOf(const std::string& subcommand);

// The request's row, after a look at every word. On failure returns nothing and one line in
// `error`, which says what is wrong with the request.
const TaskKind* CheckRequest(const TaskRequest& request, std::string* error);

// Carries out a request that CheckRequest() has passed and returns the program's exit status.
int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request, bool json);

}  // namespace peltexctl
