// Options, and the table of subcommands.
#include <android/log.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "archive_commands.h"
#include "data_mount.h"
#include "events.h"
#include "exit_code.h"
#include "library.h"
#include "shell.h"
#include "task_command.h"

namespace peltexctl {

namespace {

struct Options {
    std::optional<std::string> library;
    std::optional<std::string> data;
    std::string log = "error";
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
    std::string line = message;
    std::replace(line.begin(), line.end(), '\n', ' ');
    fmt::print(stderr, "peltexctl: {}\n", line);
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
    const TaskKind* kind = CheckRequest(options.task, &error);
    if (kind == nullptr) {
        return Fail(kUsage, error);
    }
    const std::optional<Library> library = SetUp(options);
    return library ? RunTask(*library, *kind, options.task, options.json) : kNoLibraryOrData;
}

// An archive is looked at without the library; --data only says where its path leads.
template <int (*kRun)(const ArchiveRequest& request, bool json)>
int RunArchiveCommand(const Options& options) {
    std::string error;
    if (options.data && !MountData(*options.data, &error)) {
        return Fail(kNoLibraryOrData, error);
    }
    return kRun(options.archive, options.json);
}

void DeclareShell(CLI::App* command, Options* /*options*/) {
    command->footer(ShellHelp());
}

void DeclareTask(CLI::App* command, Options* options) {
    TaskRequest& task = options->task;
    std::string footer;
    for (const TaskKind* kind : KindsOf(command->get_name())) {
        if (*kind->kind != '\0') {
            footer += fmt::format("  {:<8}{}\n", kind->kind, kind->help);
        }
    }
    if (!footer.empty()) {
        command->add_option("KIND", task.kind, "What is taken, see below")->required();
        command->footer("Kinds:\n" + footer);
    }
    command->add_option("SRC", task.source, "Source path")->required();
    const bool is_brief = command->get_name() == "brief";
    command
        ->add_option(is_brief ? "BRIEF" : "DEST", task.destination,
                     is_brief ? "The brief file to write" : "Destination path")
        ->required();
    command->add_option("--uid", task.uid, "Owner of what is written")->capture_default_str();
    command->add_option("--seinfo", task.se_info, "SELinux information for its labels")
        ->capture_default_str();
    if (command->get_name() == "backup") {
        command->add_option("--slice-size", task.slice_size, "Of a split backup, in MiB")
            ->capture_default_str();
        command->add_option("--take", task.take,
                            "Move the slices of a split backup there as they are handed over");
        command->add_flag("--no-verify", task.no_verify,
                          "Do not verify the archive that was written");
    }
}

void DeclareArchive(CLI::App* command, Options* options) {
    command->add_option("FILE", options->archive.file, "An archive, one slice, or a check file")
        ->required();
}

void DeclareExport(CLI::App* command, Options* options) {
    command->add_option("CHECKFILE", options->archive.file, "The check file of a set of slices")
        ->required();
    command->add_option("OUT", options->archive.out, "The new archive, - for standard output")
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
    app->set_version_flag("--version", "peltexctl " PELTEXCTL_VERSION);
    app->add_option("--library", options->library,
                    "The library to load (default: the one beside this program, else the "
                    "installed one)");
    app->add_option("--data", options->data,
                    "Mount this directory on /data, for this process only (needs root)");
    app->add_option("--log", options->log, "Lowest priority of the library's log to show")
        ->check(CLI::IsMember(levels))
        ->capture_default_str();
    app->add_flag("--json", options->json, "Print JSON objects, one per line");
    app->require_subcommand(0, 1);
    for (const Subcommand& row : kSubcommands) {
        CLI::App* command = app->add_subcommand(row.name, row.help);
        row.declare(command, options);
    }
}

int Main(int argc, char** argv) {
    CLI::App app("Opens sessions in libpeltexinstalld.so and sends commands to it.", "peltexctl");
    Options options;
    DeclareOptions(&app, &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        // Help and version arrive here too, with the exit code 0.
        return end.get_exit_code() == 0 ? app.exit(end) : Fail(kUsage, end.what());
    }
    for (const Subcommand& row : kSubcommands) {
        if (app.got_subcommand(row.name)) {
            options.task.subcommand = row.name;
            return row.run(options);
        }
    }
    return Fail(kUsage, "a subcommand is missing, see --help");
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
    // Without the destructors of static objects: the library's would take its state from under
    // worker threads that are still on their way out.
    _exit(status);
}
