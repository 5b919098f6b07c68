// Options, and the table of subcommands.
#include <android/log.h>
#include <fmt/format.h>
#include <unistd.h>

#include <fmt/ranges.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "archive/commands.h"
#include "task/data_mount.h"
#include "ui/events.h"
#include "ui/exit_code.h"
#include "task/library.h"
#include "ui/manual.h"
#include "shell/shell.h"
#include "ui/signals.h"
#include "task/task_command.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

struct Options {
    std::optional<std::string> library;
    std::optional<std::string> data;
    std::string log = "error";
    std::string generate;
    bool json = false;
    TaskRequest task;
    ArchiveRequest archive;
};

struct LogLevel {
    const char* name;
    int priority;
};

constexpr LogLevel kLogLevels[] = {
    {"debug", ANDROID_LOG_DEBUG}, {"info", ANDROID_LOG_INFO},     {"warn", ANDROID_LOG_WARN},
    {"error", ANDROID_LOG_ERROR}, {"silent", ANDROID_LOG_SILENT},
};

int Fail(ExitCode code, const std::string& message) {
    PrintError(message);
    return code;
}

// Loads the library before the mount, so that its path means what it means to the caller, and
// makes the mount before the library has a thread.
std::optional<Library> SetUp(const Options& options) {
    for (const LogLevel& level : kLogLevels) {
        if (options.log == level.name) {
            __android_log_set_minimum_priority(level.priority);
        }
    }
    std::string error;
    std::optional<Library> library = LoadLibrary(options.library, &error);
    if (!library || (options.data && !MountData(*options.data, &error))) {
        Fail(kNoLibraryOrData, error);
        return std::nullopt;
    }
    TakeSignals();
    return library;
}

int RunShellCommand(const Options& options) {
    const std::optional<Library> library = SetUp(options);
    if (!library) {
        return kNoLibraryOrData;
    }
    // Never destroyed: the library's threads may report to it until the process is gone.
    static EventWriter* const events =
        new EventWriter(options.json || isatty(STDOUT_FILENO) == 0 ? EventWriter::Format::kJson
                                                                   : EventWriter::Format::kText);
    return RunShell(*library, events);
}

int RunTaskCommand(const Options& options) {
    std::string error;
    TaskRequest request = options.task;
    for (std::string* path : {&request.source, &request.destination}) {
        // Which completion adds, and by which the library would lose the name before it.
        path->erase(std::max<size_t>(path->find_last_not_of('/') + 1, path->empty() ? 0 : 1));
    }
    const TaskKind* kind = CheckRequest(request, &error);
    if (kind == nullptr) {
        return Fail(kUsage, error);
    }
    const std::optional<Library> library = SetUp(options);
    return library ? RunTask(*library, *kind, request, options.json) : kNoLibraryOrData;
}

// An archive is looked at without the library; --data only says where its path leads.
template <int (*kRun)(const ArchiveRequest& request, bool json)>
int RunArchiveCommand(const Options& options) {
    std::string error;
    if (options.data && !MountData(*options.data, &error)) {
        return Fail(kNoLibraryOrData, error);
    }
    TakeSignals();
    return kRun(options.archive, options.json);
}

void DeclareShell(CLI::App* /*command*/, Options* /*options*/) {}

void DeclareTask(CLI::App* command, Options* options) {
    TaskRequest& task = options->task;
    std::vector<std::string> kinds;
    for (const TaskKind* kind : KindsOf(command->get_name())) {
        kinds.emplace_back(kind->kind);
    }
    if (kinds.size() > 1) {
        command->add_option("KIND", task.kind, "What is taken, see below")
            ->check(CLI::IsMember(kinds))
            ->required();
    }
    const bool is_brief = command->get_name() == "brief";
    command->add_option("SRC", task.source, "Source path")->type_name("PATH")->required();
    command
        ->add_option(is_brief ? "BRIEF" : "DEST", task.destination,
                     is_brief ? "The brief file to write" : "Destination path")
        ->type_name("PATH")
        ->required();
    command->add_option("--uid", task.uid, "Owner and group of what is written")
        ->type_name("UID")
        ->capture_default_str();
    command->add_option("--seinfo", task.se_info, "SELinux information for its labels")
        ->type_name("INFO")
        ->capture_default_str();
    if (command->get_name() == "backup") {
        command->add_option("--slice-size", task.slice_size, "Of a split backup, 1 to 2047 MiB")
            ->type_name("MIB")
            ->capture_default_str();
        command
            ->add_option("--take", task.take,
                         "Move the slices of a split backup there as they are handed over")
            ->type_name("DIR");
        command->add_flag("--no-verify", task.no_verify,
                          "Do not verify the archive that was written");
    }
}

void DeclareArchive(CLI::App* command, Options* options) {
    command->add_option("FILE", options->archive.file, "An archive, one slice, or a check file")
        ->type_name("FILE")
        ->required();
}

void DeclareExport(CLI::App* command, Options* options) {
    command->add_option("CHECKFILE", options->archive.file, "The check file of a set of slices")
        ->type_name("FILE")
        ->required();
    command->add_option("OUT", options->archive.out, "The new archive, - for standard output")
        ->type_name("FILE")
        ->required();
}

struct Subcommand {
    const char* name;
    const char* help;
    void (*declare)(CLI::App* command, Options* options);
    int (*run)(const Options& options);
};

constexpr Subcommand kSubcommands[] = {
    {"shell", "Send the lines of standard input to the library", DeclareShell, RunShellCommand},
    {"backup", "Back up a file or a directory", DeclareTask, RunTaskCommand},
    {"restore", "Restore a file or a directory", DeclareTask, RunTaskCommand},
    {"move", "Move a directory's content", DeclareTask, RunTaskCommand},
    {"brief", "List what a backup would hold", DeclareTask, RunTaskCommand},
    {"list", "List the entries of an archive or a set of slices", DeclareArchive,
     RunArchiveCommand<RunList>},
    {"verify", "Tell whether an archive or a set of slices would come back whole", DeclareArchive,
     RunArchiveCommand<RunVerify>},
    {"export", "Join a set of slices into one archive for any tar program", DeclareExport,
     RunArchiveCommand<RunExport>},
};

void DeclareOptions(CLI::App* app, Options* options) {
    std::vector<std::string> levels;
    for (const LogLevel& level : kLogLevels) {
        levels.emplace_back(level.name);
    }
    app->formatter_fn([](const CLI::App* asked, const std::string&, CLI::AppFormatMode) {
        return HelpPage(*asked);
    });
    app->set_help_flag("-h,--help", "Print help and exit");
    app->set_version_flag("--version", "peltexctl " PELTEXCTL_VERSION,
                          "Print the version and exit");
    app->add_option("--library", options->library,
                    "The library to load instead of the installed one")
        ->type_name("FILE");
    app->add_option("--data", options->data,
                    "Show this directory as /data, to this process only (needs root)")
        ->type_name("DIR");
    app->add_option("--log", options->log, "Lowest priority of the library's log to show")
        ->type_name("LEVEL")
        ->check(CLI::IsMember(levels))
        ->capture_default_str();
    app->add_flag("--json", options->json, "Print JSON objects, one per line");
    app->add_option("--generate", options->generate, "What the build makes of this program")
        ->check(CLI::IsMember({"1", "bash"}))
        ->group("");
    app->require_subcommand(0, 1);
    for (const Subcommand& row : kSubcommands) {
        CLI::App* command = app->add_subcommand(row.name, row.help);
        command->fallthrough();
        row.declare(command, options);
    }
}

int Generate(const CLI::App& app, const std::string& form) {
    fmt::print("{}", form == "1" ? ManPage(app) : BashCompletion(app));
    return kDone;
}

// What is wrong with a command line, and which help tells more.
int FailUsage(const CLI::App& app, const std::string& reason) {
    const std::vector<CLI::App*> commands = app.get_subcommands();
    return Fail(kUsage, fmt::format("{}; see peltexctl {}--help", reason,
                                    commands.empty() ? "" : commands[0]->get_name() + " "));
}

// The first word that is no option, where no subcommand was found.
std::string NoSubcommand(const CLI::App& app) {
    std::vector<std::string> names;
    for (const Subcommand& row : kSubcommands) {
        names.emplace_back(row.name);
    }
    const std::vector<std::string> words = app.remaining();
    return fmt::format("{}: {}",
                       words.empty() ? "a subcommand is missing"
                                     : fmt::format("\"{}\" is no subcommand", words[0]),
                       fmt::join(names, ", "));
}

int Main(int argc, char** argv) {
    CLI::App app("Back up and restore application data, and read such archives", "peltexctl");
    Options options;
    DeclareOptions(&app, &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError& extra) {
        return FailUsage(app, app.get_subcommands().empty() ? NoSubcommand(app) : extra.what());
    } catch (const CLI::ParseError& end) {
        // Help and version arrive here too, with the exit code 0.
        return end.get_exit_code() == 0 ? app.exit(end) : FailUsage(app, end.what());
    }
    if (!options.generate.empty()) {
        return Generate(app, options.generate);
    }
    for (const Subcommand& row : kSubcommands) {
        if (app.got_subcommand(row.name)) {
            options.task.subcommand = row.name;
            HoldSignals();
            const auto start = std::chrono::steady_clock::now();
            const SignalScope signals(
                [&row, start] {
                    const std::chrono::duration<double> run =
                        std::chrono::steady_clock::now() - start;
                    fmt::print(stderr, "{}: running for {}\n", row.name, HumanTime(run.count()));
                },
                [] {
                    PrintError("interrupted");
                    _exit(kInterrupted);
                });
            return row.run(options);
        }
    }
    return FailUsage(app, NoSubcommand(app));
}

}  // namespace

}  // namespace peltexctl

int main(int argc, char** argv) {
    int status = peltexctl::kTaskFailed;
    try {
        status = peltexctl::Main(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "peltexctl: %s\n", failure.what());
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fprintf(stderr, "peltexctl: standard output could not be written\n");
        status = status == peltexctl::kDone ? peltexctl::kTaskFailed : status;
    }
    peltexctl::LeaveSignals();
    // Without the destructors of static objects: the library's would take its state from under
    // worker threads that are still on their way out.
    _exit(status);
}
