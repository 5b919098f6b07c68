// Trees and archives as text, to make and to look at: a word per entry.
//
//   d/  d/file=content  link>target  fifo|  socket!  another&name      the last: one more link to
//   it file=#1025                    1025 bytes, or what is no word file[4755]=  d/[1:2,700] mode,
//   or owner and mode, where they are not root's 644 or 755 file*=  d/* [10123:10123,771]: what
//   tasks of that uid make file+=                        [10123:10123,660]: their archives file{7}=
//   changed 7 seconds after the epoch; 0 otherwise
//
//   0:file=content  5:d/  2:link>target  K:text  L:text      an archive's entries, with their types
//   0:file[1:2,4755]{124,777}=    with a field overwritten: offset and text, "_" for a blank
//   0:file{8}=  -:file=           a checksum of eight digits, 9: a wrong one; a type of NUL
//   end  zeros#512  junk#512      two empty blocks; bytes
#pragma once

#include <string>

#include "tests/support/test_files.h"

namespace peltex_test {

// Makes the entries under `root`, in the order of the words, and what is missing above them.
void plant(const std::string& root, const std::vector<std::string>& words);

// What is under `root`, sorted by name.
std::string shown(const std::string& root);

std::string archiveOf(const std::vector<std::string>& words);

// The entries of a packed archive as words, sorted, each with the long-name records before it. One
// whose header has another byte than the words say shows its fields instead.
std::string packedIn(const std::string& archive);

}  // namespace peltex_test
