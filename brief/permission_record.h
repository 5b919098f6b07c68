// Permission records: one text line that describes one file or directory,
//
//   path;mode;type;size;modified_time\n
//
// | field         | written as                                                                 |
// |---------------|----------------------------------------------------------------------------|
// | path          | as given, unescaped; may hold ";" and newlines                             |
// | mode          | decimal permission bits with set-id and sticky bits, 0 to 4095             |
// | type          | "1" for a directory, "0" for anything else                                 |
// | size          | decimal bytes                                                              |
// | modified_time | decimal seconds since the epoch                                            |
//
// A record has at most 2047 characters, its newline included. Owners are not part of it. Attribute
// files beside a backup and brief files are made of such lines.
//
// The functions keep no state and may be called from any thread. They return -1 on failure after
// logging why.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include "base/place.h"

namespace android::installd {

// A line of records, in bytes with its NUL.
constexpr size_t kRecordSize = 2048;
constexpr int kRecordFields = 5;

// One parsed record.
struct File_info {
    char path[kRecordSize];
    int32_t mode;
    int32_t type;
    int64_t size;
    int64_t modified_time;
};

// Writes the record of `path`, following links, to `stream`, which stays the caller's to flush.
// Returns 0 also when the stream took less than the record, which is logged.
int do_backup_perm(const char* path, FILE* stream);

// The same for an entry of a directory that is held open.
int do_backup_perm(const Place& entry, FILE* stream);

// The same for an entry that the caller has looked at already.
int do_backup_perm(const char* path, const struct stat& status, FILE* stream);

// Parses a line from its end towards its start, so that the path may hold ";". Returns how many
// fields it has filled, 5 for a whole record; 0 for a line that ends in ";"; -1 for a line of fewer
// than 4 characters and for a field that is refused. The path must name a file or directory that is
// there. Separators that were consumed become NUL in `line`.
int parse_line_info(char* line, File_info& info);

// Gives the recorded permission bits back to the recorded path. Returns 0 or -1.
int process_info(const File_info& info);

// Applies every record of the attribute file `info_file`, then relabels `pkgdir` and all below it
// with `se_info`. Returns 0, or -1 at the first record that cannot be applied, before relabelling.
int restore_application_from_infofile(const char* pkgdir, const char* info_file,
                                      const char* se_info);

}  // namespace android::installd
