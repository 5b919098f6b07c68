// The kinds of task: how people name them and what the library reads for each.
#pragma once

#include <string>
#include <vector>

namespace peltexctl {

struct TaskRequest {
    std::string subcommand;
    std::string kind;
    std::string source;
    std::string destination;
    std::string uid = "0";
    std::string se_info = "default";
    std::string slice_size = "100";  // MiB
    std::string take;                // where the slices of a split backup go; empty: they stay
    bool no_verify = false;
};

struct TaskKind {
    const char* subcommand;
    const char* kind;  // empty for a subcommand of one kind
    const char* help;
    // The command line for the library.
    std::string (*compose)(const TaskKind& kind, const TaskRequest& request);
    // The path under which the bytes lie that the task reports on; empty where its progress does
    // not count them.
    std::string (*content)(const TaskRequest& request);
    // The archive or check file that it writes; empty where it writes none.
    std::string (*archive)(const TaskRequest& request);
    // Whether it hands over slices and waits for the client after each.
    bool has_slices;
    // Whether it unpacks into a directory that has to be there.
    bool needs_directory;
};

// The kinds of a subcommand, in the order to show them.
std::vector<const TaskKind*> KindsOf(const std::string& subcommand);

// The request's row, after a look at every word. On failure returns nothing and one line in
// `error`, which says what is wrong with the request.
const TaskKind* CheckRequest(const TaskRequest& request, std::string* error);

}  // namespace peltexctl
