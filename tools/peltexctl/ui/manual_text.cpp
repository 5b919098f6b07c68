// Tested by tests/peltexctl/test_manual.py.
#include "ui/manual_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "ui/exit_code.h"
#include "task/task_words.h"

namespace peltexctl {

namespace {

const std::vector<CommandText>& CommandTexts() {
    static const std::vector<CommandText>& texts = *new std::vector<CommandText>{
        {"",
         {"Loads libpeltexinstalld.so, opens sessions in it and sends it commands, as a client of "
          "the package-installation daemon does: backup, restore, move, brief and shell. These "
          "need root, and name paths as they are on a device.",
          "Reads the archives and sets of slices that the library writes: list, verify and export. "
          "These need neither root nor the library."},
         {{"Back up the data of an application, DIR being the /data of a device:",
           "peltexctl --data DIR backup tar /data/data/com.app /data/data/bk"},
          {"Get the files out of slices that came from a device:",
           "peltexctl export com.app.tar.txt com.app.tar && tar xf com.app.tar"}}},
        {"shell",
         {"Each line of standard input is sent to the library, byte for byte, in the current "
          "session; what it answers and tells is printed as it comes: as objects (see --json), or "
          "in words on a terminal.",
          "At the end of input the shell waits up to 60 seconds for the tasks that have not ended, "
          "then finishes the sessions. A process that dies takes its waiting tasks along without "
          "a word: after .die with a task that was still waiting, the end of the shell takes these "
          "60 seconds. SIGINT ends the shell at once."},
         {{"Send one command and wait for its task:",
           "printf '%s\\n' 'backup file /data/data/a /data/data/bk default 0' \\\n"
           "    '.wait 101' | peltexctl --data DIR shell"}}},
        {"backup",
         {"What is written belongs to --uid. An archive that was written is verified against its "
          "source, as names, types, sizes and link targets; a set of slices may have to be made "
          "again with another --slice-size, which the verification tells.",
          "A split backup pauses after each slice until the client has it. Without --take the "
          "slices stay in DEST. With it each is moved to DIR as it is handed over, so that DEST "
          "needs room for one slice; a slice that cannot be moved stops the backup and stays where "
          "it is."},
         {{"One archive, for the application with the uid 10123:",
           "peltexctl backup tar /data/data/com.app /data/data/bk --uid 10123"},
          {"Slices of 64 MiB, taken to another disk one by one:",
           "peltexctl backup split /data/data/com.app /data/data/bk \\\n"
           "    --slice-size 64 --take /media/disk"},
          {"The files of an edited brief:",
           "peltexctl backup byfile /data/data/brief /data/data/bk/com.app"}}},
        {"restore",
         {"What is written belongs to --uid, but for what a permission record says. Nothing of "
          "DEST is removed before.",
          "What an archive holds is looked for in DEST afterwards, by names, types and sizes: a "
          "full "
          "disk cuts files without an error. Only then the slices of a set are removed; until then "
          "each has a second name, NAME.kept. A restore that fails or is interrupted leaves the "
          "set "
          "as it was. Where the file system has no hard links each slice is gone as soon as it has "
          "been unpacked.",
          "How many bytes of an archive have been unpacked the library does not tell."},
         {{"An archive, into the directory of the application itself:",
           "peltexctl restore tar /data/data/bk/com.app.tar /data/data/com.app"},
          {"A set of slices, by its check file, for another uid:",
           "peltexctl restore split /data/data/bk/com.app.tar.txt \\\n"
           "    /data/data/com.app --uid 10456"}}},
        {"move",
         {"Each file is removed from SRC when it has been copied to DEST. Symbolic links are not "
          "moved and keep SRC from being removed, which fails the task."},
         {{"Move an application's data:", "peltexctl move /data/data/com.app /data/data/new"}}},
        {"brief",
         {"A brief has one line per file and directory: path;mode;type;size;modified, with decimal "
          "permission bits, type 1 for directories, bytes and seconds since 1970. The search file "
          "of \"byfile\" has lines [include]PATH and [exclude]PATH."},
         {{"What a backup of the application would hold:",
           "peltexctl brief dir /data/data/com.app /data/data/brief"}}},
        {"list",
         {"One line per entry, as of tar tv: mode, uid/gid, size, time, name. A file that is cut "
          "by slices is listed once, with its whole size, when FILE is the check file."},
         {{"All entries of a set of slices:", "peltexctl list com.app.tar.txt"},
          {"Exact sizes, for a program:", "peltexctl --json list com.app.tar"}}},
        {"verify",
         {"Reads all headers, as a restore does, and no content. Each fault is something that "
          "would "
          "not come back as it was; a warning is something that may be as it should."},
         {{"A set of slices, by its check file:", "peltexctl verify com.app.tar.txt"}}},
        {"export",
         {"Verifies the set first. OUT takes the place of a file of that name once it is whole; "
          "when something fails nothing is left of it."},
         {{"One archive out of slices:", "peltexctl export com.app.tar.txt com.app.tar"},
          {"Straight into another program:",
           "peltexctl export com.app.tar.txt - | tar xf - -C DIR"}}},
    };
    return texts;
}

std::vector<Definition> ExitCodes() {
    std::vector<Definition> rows;
    for (const ExitCodeText& row : kExitCodeTexts) {
        rows.push_back({std::to_string(row.code), row.text});
    }
    return rows;
}

}  // namespace

const CommandText& TextOf(const std::string& name) {
    return *std::find_if(CommandTexts().begin(), CommandTexts().end(),
                         [&name](const CommandText& row) { return row.name == name; });
}

std::vector<Section> CommonSections() {
    return {
        {"Paths",
         {"Tasks take paths that begin with one of " + Areas() +
              "; others are refused, and so is \"../\" in a path. Words of a command hold no "
              "blank. A slash at the end of SRC or DEST is not sent.",
          "With --data DIR the directory DIR is /data to this process and to nobody else; DIR is "
          "made where it is missing. All other paths are those of this host, --take among them."},
         {}},
        {"Output",
         {"Results go to standard output, errors, progress and the library's log to standard "
          "error. Progress is a bar on a terminal, else a line a second. Sizes are in binary "
          "units. With --json standard output is one object per line; sizes are exact bytes, what "
          "is not known is left out, and a byte that is not UTF-8 is the code point of its value:"},
         {{"session", "session"},
          {"result", "command, result: the library's answer, a task's id or an error"},
          {"status",
           "session, task, code, message; callback, if it is not the first. Codes: 1 started, 0 "
           "done, -1 failed, 2 aborted, 3 progress (bytes so far), 4 a slice is handed over (its "
           "path, \"|end\" behind the last), 5 timed out, 6 size of a brief (bytes)"},
          {"closed", "session, result"},
          {"waited", "task, code"},
          {"threads", "threads: name, tid, nice of each"},
          {"entry", "type, mode, uid, gid, size, mtime, name; link, of a link"},
          {"fault, warning", "slice, entry, message"},
          {"verified", "whole, slices, entries, bytes, faults, warnings"},
          {"exported", "file, entries, bytes"},
          {"summary", "task, entries, bytes, seconds, bytes_per_second, slices"},
          {"error", "message"}}},
        {"Exit status", {}, ExitCodes()},
        {"Signals",
         {},
         {{"SIGUSR1", "Tells on standard error where each task stands, and goes on."},
          {"SIGINT, SIGTERM",
           "Abort the task, wait for its end and tell what is left. The library ends a copy, a "
           "move or a brief only when it is complete. A second signal ends the program at once."}}},
        {"Environment",
         {},
         {{"NO_COLOR", "No colours, if it is set to anything."},
          {"TERM", "\"dumb\" stands for a terminal without colours and bar."}}},
        {"Files",
         {},
         {{"libpeltexinstalld.so",
           "The library: the one beside the program, else the one that the loader finds."},
          {"NAME.tar.0, NAME.tar.1, ...", "Slices, each an archive of its own."},
          {"NAME.tar.txt", "Their check file: a line NAME|SIZE for each."},
          {"NAME.kept",
           "The second name of a slice that a restore or an abort may remove. It stays behind only "
           "when the program is killed; the next restore of the set finds it."}}},
    };
}

std::vector<Definition> LibraryCommands() {
    return {
        {"backup KIND SRC DEST SEINFO UID", "KIND: file, dir, tar or byfile"},
        {"backup split SRC DEST MIB SEINFO UID", "again: the next slice"},
        {"restore KIND SRC DEST SEINFO UID", "KIND: file, dir, tar or split"},
        {"move dir SRC DEST SEINFO UID", ""},
        {"get_brief KIND SRC BRIEF SEINFO UID", "KIND: dir or byfile"},
        {"abort TASK", ""},
        {"keepalive", "keeps a backup that pauses after a slice waiting"},
        {"setweight tar WEIGHT", "the priority of archive tasks: 0 (lowest) to 100"},
        {"delay NUMBER", "accepted, without effect"},
    };
}

}  // namespace peltexctl
