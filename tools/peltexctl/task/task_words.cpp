// Tested by tests/peltexctl/test_command_line.py and test_signals.py.
#include "task/task_words.h"

#include <fmt/format.h>

namespace peltexctl {

std::string ExplainRefusal(int result) {
    switch (result) {
        case -1:
            return "the library could not start a worker thread";
        case -4:
            return "an equal task is waiting or running";
        default:
            return fmt::format("the library refuses the command with {}", result);
    }
}

std::string ExplainFailure(int task, const TaskKind& kind, const TaskRequest& request,
                           bool log_is_shown) {
    std::string text = fmt::format(
        "task {} failed: {}", task,
        log_is_shown ? "the library's log above tells where"
                     : "--log error shows the library's log, which tells where");
    if (kind.Unpacks()) {
        text += fmt::format("; \"peltexctl verify {}\" tells what is wrong with the archive",
                            request.source);
    }
    return text;
}

std::string DescribeLeft(const TaskKind& kind, const TaskRequest& request, Ending ending) {
    const std::string result = kind.result_path(request);
    if (kind.Unpacks()) {
        return fmt::format("what was unpacked is in {}{}", request.destination,
                           kind.RestoresSlices() ? ", the set is as it was" : "");
    }
    if (kind.HasArchive()) {
        return StatOf(result) ? fmt::format("{} may lack entries, remove it", result)
                              : fmt::format("nothing is left of {}", result);
    }
    if (ending == Ending::kSucceeded) {
        return kind.IsMove()
                   ? fmt::format("everything had been moved to {} by then", request.destination)
                   : fmt::format("{} had been completed by then", request.destination);
    }
    return kind.IsMove() ? fmt::format("what was moved is in {}, the rest in {}",
                                       request.destination, request.source)
                         : fmt::format("{} is not complete", request.destination);
}

std::string DescribeStop(const TaskKind& kind) {
    return kind.HasArchive() ? "stopping it"
                             : fmt::format("the library ends it when all is {}; to leave it "
                                           "unfinished interrupt it again",
                                           kind.IsBrief() ? "listed" : "copied");
}

}  // namespace peltexctl
