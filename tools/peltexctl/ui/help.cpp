// Tested by tests/peltexctl/test_help.py.
#include "ui/help.h"

#include <fmt/format.h>

#include <string_view>

#include "shell/shell.h"
#include "task/task_kinds.h"

namespace peltexctl {

namespace {

struct Footer {
    std::string_view subcommand;
    const char* text;
};

constexpr Footer kFooters[] = {
    {"",
     R"(Back up the data of an application, DIR being the /data of a device:
  peltexctl --data DIR backup tar /data/data/com.app /data/data/bk
Get the files out of slices that came from a device:
  peltexctl export com.app.tar.txt com.app.tar && tar xf com.app.tar

"peltexctl SUBCOMMAND --help" tells more, and man peltexctl most.)"},
    {"shell",
     R"(Each line of standard input is sent to the library in the current session. What comes back is
printed as objects, or in words on a terminal. At its end the shell waits for the tasks of open
sessions, 60 seconds at most.
)"},
    {"backup",
     R"(What is written is checked against SRC. A split backup pauses after each slice until the client
has it; with --take each is moved to DIR then, so that DEST needs room for one slice.

  peltexctl backup tar /data/data/com.app /data/data/bk --uid 10123
  peltexctl backup split /data/data/com.app /data/data/bk --slice-size 64 --take /media/disk)"},
    {"restore",
     R"(What is there afterwards is checked against SRC. A set of slices stays as it is, unless --consume
asks for its removal. Nothing of DEST is removed before.

  peltexctl restore tar /data/data/bk/com.app.tar /data/data/com.app --uid 10456
  peltexctl restore split /data/data/bk/com.app.tar.txt /data/data/com.app --uid 10456)"},
    {"move",
     R"(Each file is removed from SRC when it has been copied to DEST. Symbolic links are not moved and
keep SRC from being removed, which fails the task.)"},
    {"brief",
     R"(A brief has a line PATH;MODE;TYPE;SIZE;TIME for each file and directory. The search file of
"byfile" has lines [include]PATH and [exclude]PATH.)"},
    {"list",
     R"(A line for each entry, as of tar tv; a file that slices cut is one entry of its check file.)"},
    {"verify",
     R"(A fault is something that would not come back as it was, a warning something that may be as it
should. Where NAME.tar.sha256 is beside FILE, content is compared with its sums.)"},
    {"export", R"(The set is verified first. OUT is replaced when the new archive is whole.

  peltexctl export com.app.tar.txt - | tar xf - -C DIR)"},
};

}  // namespace

std::string HelpFooter(const std::string& subcommand) {
    std::string footer;
    for (const TaskKind* kind : KindsOf(subcommand)) {
        if (*kind->kind != '\0') {
            footer += fmt::format("  {:<10}{}\n", kind->kind, kind->help);
        }
    }
    footer = footer.empty() ? "" : "Kinds:\n" + footer + "\n";
    for (const Footer& row : kFooters) {
        footer += row.subcommand == subcommand ? row.text : "";
    }
    if (subcommand == "shell") {
        footer += "\n" + ShellHelp();
    }
    if (subcommand.empty()) {
        footer += R"(

Exit status:
  0    done, and all of it is there
  1    refused, failed or incomplete; an archive is not whole
  2    the command line is wrong
  3    no library, or --data could not be mounted
  130  ended by SIGINT, SIGTERM or SIGHUP
)";
    }
    return footer;
}

}  // namespace peltexctl
