// Options, and the table of subcommands.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "archive/commands.h"
#include "shell/shell.h"
#include "task/data_mount.h"
#include "task/library.h"
#include "task/task_command.h"
#include "ui/ending.h"
#include "ui/events.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

struct Subcommand;

struct Options {
    const Subcommand* subcommand = nullptr;
    std::optional<std::string> library;
    std::optional<std::string> data;
    std::string log;  // the lowest priority to show of the library's; empty: after a failure
    bool json = false;
    bool quiet = false;
    TaskRequest task;
    ArchiveRequest archive;
};

// Loads the library before the mount, so that its path means what it means to the caller, and
// makes the mount before the library has a thread.
Library SetUp(const Options& options) {
    // Who reads what is printed may go: the task goes on.
    std::signal(SIGPIPE, SIG_IGN);
    Ensure(access("/proc/self/fd", F_OK) == 0, "/proc is not mounted, which the library needs",
           kNoLibraryOrData);
    const Library library = LoadLibrary(options.library);
    if (options.data) {
        MountData(*options.data);
    }
    TakeSignals();
    return library;
}

int RunShellCommand(const Options& options, EventWriter* writer) {
    const Library library = SetUp(options);
    TakeLibraryLog(options.log.empty() ? "error" : options.log, &writer->view());
    // What is no terminal gets objects; why the shell cannot begin is told people all the same.
    static EventWriter events(options.json || isatty(STDOUT_FILENO) == 0, options.quiet);
    return RunShell(library, &events);
}

int RunTaskCommand(const Options& options, EventWriter* events) {
    TaskRequest request = options.task;
    for (std::string* path : {&request.source, &request.destination, &request.take}) {
        // Which completion adds, and by which the library would lose the name before it.
        path->erase(std::max<size_t>(path->find_last_not_of('/') + 1, path->empty() ? 0 : 1));
    }
    const TaskKind& kind = CheckRequest(request);
    const Library library = SetUp(options);
    TakeLibraryLog(options.log, &events->view());
    return RunTask(library, {kind, request, *events, options.log != "silent"});
}

// An archive is looked at without the library; --data only says where its path leads.
int RunArchiveCommand(const Options& options, EventWriter* events) {
    if (options.data) {
        MountData(*options.data);
    }
    TakeSignals();
    return RunArchive(options.archive, events);
}

template <typename Value>
CLI::Option* Add(CLI::App* app, const std::string& name, const char* type, Value* value,
                 const char* help) {
    return app->add_option(name, *value, help)->type_name(type);
}

void DeclareTask(CLI::App* command, Options* options) {
    TaskRequest& task = options->task;
    const std::string& name = command->get_name();
    std::vector<std::string> kinds;
    for (const TaskKind* kind : KindsOf(name)) {
        kinds.emplace_back(kind->kind);
    }
    if (kinds.size() > 1) {
        command->add_option("KIND", task.kind, "What is taken, see below")
            ->check(CLI::IsMember(kinds))
            ->required();
    }
    const bool is_brief = name == "brief";
    Add(command, "SRC", "PATH", &task.source, "Source path")->required();
    Add(command, is_brief ? "BRIEF" : "DEST", "PATH", &task.destination,
        is_brief ? "The brief file to write" : "Destination path")
        ->required();
    Add(command, "--uid", "UID", &task.uid, "Owner and group of what is written")
        ->capture_default_str();
    Add(command, "--seinfo", "INFO", &task.se_info, "SELinux information for its labels")
        ->capture_default_str();
    command->add_flag("--no-verify", task.no_verify, "Do not look at the trees before and after");
    command->add_flag("--force", task.force, "Go on where something would be lost");
    if (name == "backup") {
        Add(command, "--slice-size", "MIB", &task.slice_size, "Of a split backup, 1 to 2047 (100)");
        Add(command, "--take", "DIR", &task.take, "Where its slices go as they are handed over");
        command->add_flag("--replace", task.replace, "Write over an archive or set of that name");
        command->add_flag("--sums", task.sums, "Write NAME.tar.sha256 for sha256sum -c, too");
    }
    if (name == "restore") {
        command->add_flag("--consume", task.consume, "Remove a set when all of it is there");
    }
}

void DeclareArchive(CLI::App* command, Options* options) {
    Add(command, "FILE", "FILE", &options->archive.file, "An archive, one slice, or a check file")
        ->required();
}

void DeclareExport(CLI::App* command, Options* options) {
    ArchiveRequest& archive = options->archive;
    Add(command, "CHECKFILE", "FILE", &archive.file, "The check file of a set of slices")
        ->required();
    Add(command, "OUT", "FILE", &archive.out, "The new archive, - for standard output")->required();
}

struct Subcommand {
    const char* name;
    const char* help;
    void (*declare)(CLI::App* command, Options* options);  // null where there are none of its own
    int (*run)(const Options& options, EventWriter* events);
    const char* more;  // behind the options of its help
};

constexpr Subcommand kSubcommands[] = {
    {"shell", "Send the lines of standard input to the library", nullptr, RunShellCommand,
     R"(Each line of standard input is sent to the library in the current session. What comes back is
printed as objects, or in words on a terminal. At its end the shell waits for the tasks of open
sessions, 60 seconds at most.
)"},
    {"backup", "Back up a file or a directory", DeclareTask, RunTaskCommand,
     R"(What is written is checked against SRC. A split backup pauses after each slice until the client
has it; with --take each is moved to DIR then, so that DEST needs room for one slice.

  peltexctl backup split /data/data/com.app /data/data/bk --slice-size 64 --take /media/disk)"},
    {"restore", "Restore a file or a directory", DeclareTask, RunTaskCommand,
     R"(What is there afterwards is checked against SRC. A set of slices stays as it is, unless --consume
asks for its removal. Nothing of DEST is removed before.

  peltexctl restore tar /data/data/bk/com.app.tar /data/data/com.app --uid 10456
  peltexctl restore split /data/data/bk/com.app.tar.txt /data/data/com.app --uid 10456)"},
    {"move", "Move a directory's content", DeclareTask, RunTaskCommand,
     R"(Each file is removed from SRC when it has been copied to DEST. Symbolic links are not moved and
keep SRC from being removed, which fails the task.)"},
    {"brief", "List what a backup would hold", DeclareTask, RunTaskCommand,
     R"(A brief has a line PATH;MODE;TYPE;SIZE;TIME for each file and directory. The search file of
"byfile" has lines [include]PATH and [exclude]PATH.)"},
    {"list", "List the entries of an archive or a set of slices", DeclareArchive, RunArchiveCommand,
     R"(A line for each entry, as of tar tv; a file that slices cut is one entry of its check file.)"},
    {"verify", "Tell whether an archive or a set of slices would come back whole", DeclareArchive,
     RunArchiveCommand,
     R"(A fault is something that would not come back as it was, a warning something that may be as it
should. Where NAME.tar.sha256 is beside FILE, content is compared with its sums.)"},
    {"export", "Join a set of slices into one archive for any tar program", DeclareExport,
     RunArchiveCommand,
     R"(The set is verified first. OUT is replaced when the new archive is whole.

  peltexctl export com.app.tar.txt - | tar xf - -C DIR)"},
};

constexpr char kMore[] =
    R"(Back up the data of an application, DIR being the /data of a device:
  peltexctl --data DIR backup tar /data/data/com.app /data/data/bk
Get the files out of slices that came from a device:
  peltexctl export com.app.tar.txt com.app.tar && tar xf com.app.tar

"peltexctl SUBCOMMAND --help" tells more, and man peltexctl most.

Exit status:
  0    done, and all of it is there
  1    refused, failed or incomplete; an archive is not whole
  2    the command line is wrong
  3    no library, no /proc, or --data could not be mounted
  130  ended by SIGINT, SIGTERM or SIGHUP
)";

// What stands behind the options of a subcommand's help.
std::string FooterOf(const Subcommand& subcommand) {
    std::string footer;
    for (const TaskKind* kind : KindsOf(subcommand.name)) {
        if (*kind->kind != '\0') {
            footer += fmt::format("  {:<10}{}\n", kind->kind, kind->help);
        }
    }
    footer = (footer.empty() ? "" : "Kinds:\n" + footer + "\n") + subcommand.more;
    return subcommand.run == RunShellCommand ? footer + "\n" + ShellHelp() : footer;
}

void DeclareOptions(CLI::App* app, Options* options) {
    app->set_help_flag("-h,--help", "Print help and exit");
    app->set_version_flag("--version", "peltexctl " PELTEXCTL_VERSION,
                          "Print the version and exit");
    Add(app, "--library", "FILE", &options->library, "The library to load, not the installed one");
    Add(app, "--data", "DIR", &options->data,
        "Show it as /data, to this process only (needs root)");
    Add(app, "--log", "LEVEL", &options->log, "Show the library's log from this priority on")
        ->check(CLI::IsMember(kLogLevels));
    app->add_flag("--json", options->json, "Print JSON objects, one per line");
    app->add_flag("-q,--quiet", options->quiet, "Tell only what went wrong");
    app->require_subcommand(1);
    app->footer(kMore);
    for (const Subcommand& row : kSubcommands) {
        CLI::App* command = app->add_subcommand(row.name, row.help);
        command->fallthrough();
        command->footer(FooterOf(row));
        if (row.declare != nullptr) {
            row.declare(command, options);
        }
        command->callback([options, &row] {
            options->subcommand = &row;
            options->task.subcommand = options->archive.subcommand = row.name;
        });
    }
}

// What is wrong with a command line, and which help tells more. CLI11 says what is missing before
// what is too much.
std::string DescribeUsage(const CLI::App& app, const CLI::ParseError& failure) {
    const std::vector<CLI::App*> commands = app.get_subcommands();
    const std::vector<std::string> words = app.remaining(true);
    const auto option = std::find_if(words.begin(), words.end(), [](const std::string& word) {
        return word.size() > 1 && word[0] == '-';
    });
    std::string reason = failure.what();
    if (option != words.end()) {
        reason =
            fmt::format("\"{0}\" is no option here; a file of that name is written ./{0}", *option);
    } else if (commands.empty() && (!words.empty() || failure.get_name() == "RequiredError")) {
        reason = words.empty() ? "a subcommand is missing"
                               : fmt::format("\"{}\" is no subcommand", words[0]);
        for (const Subcommand& row : kSubcommands) {
            reason += fmt::format("{} {}", &row == kSubcommands ? ":" : ",", row.name);
        }
    }
    return fmt::format("{}; see peltexctl {}--help", reason,
                       commands.empty() ? "" : commands[0]->get_name() + " ");
}

// What is opened later takes the lowest free number, and must not become an output by that.
void OpenMissingStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) < 0) {
            [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
        }
    }
}

int Run(const Options& options) {
    HoldSignals();
    const SignalScope signals([] { EndInterrupted("interrupted"); });
    // Standard output may be the archive, or lines for people to read on. Static: the library's
    // threads may report to it until the process is gone.
    const bool is_list = options.archive.subcommand == "list" && !options.json;
    static EventWriter events(options.json, options.quiet,
                              is_list || options.archive.out == "-" ? stderr : stdout);
    try {
        return options.subcommand->run(options, &events);
    } catch (const Failure& failure) {
        events.Error(failure.what());
        return failure.code;
    }
}

int Main(int argc, char** argv) {
    // Names are read as UTF-8 whatever the terminal is set to.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    std::setlocale(LC_CTYPE, "C.UTF-8");
    OpenMissingStreams();
    CLI::App app("Back up and restore application data, and read such archives", "peltexctl");
    Options options;
    DeclareOptions(&app, &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        // Help and version arrive here too, with the exit code 0.
        if (end.get_exit_code() == 0) {
            return app.exit(end);
        }
        PrintError(DescribeUsage(app, end));
        return kUsage;
    }
    return Run(options);
}

}  // namespace

}  // namespace peltexctl

int main(int argc, char** argv) {
    int status = peltexctl::kTaskFailed;
    try {
        status = peltexctl::Main(argc, argv);
    } catch (const std::exception& failure) {
        peltexctl::PrintError(failure.what());
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        peltexctl::PrintError("standard output could not be written");
        status = status == peltexctl::kDone ? peltexctl::kTaskFailed : status;
    }
    // Without the destructors of static objects: the library's would take its state from under
    // worker threads that are still on their way out.
    _exit(status);
}
