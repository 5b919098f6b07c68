// Trees and archives as text, a word per entry: both to make, trees to look at.
//
//   d/  d/file=content  file=#1025  a directory; a file; one of 1025 bytes, or of what is no word
//   link>target  fifo|  socket!     a symbolic link and other things
//   another&name                    one more link to what is there
//   file[4755]=  d/[1:2,700]        mode, or owner and mode, where they are not root's 644 or 755
//   file*=  d/*                     [10123:10123,771]: what tasks of that uid make
//   file+=                          [10123:10123,660]: their archives
//   file{7}=                        changed 7 seconds after the epoch; 0 otherwise
//   0:file=content  2:link>target   entries of an archive, with their types; "-" is a NUL
//   K:text  L:text                  the long target and the long name of the next one
//   0:file[1:2,4755]{124,777}=      with text in its header at that offset
//   0:file{8}=                      with a checksum of eight digits; 9: a wrong one
//   end  zeros#512  junk#512        two empty blocks; bytes
#pragma once

#include <string>
#include <vector>

#include "tests/support/test_files.h"

namespace peltex_test {

std::string joined(const std::vector<std::string>& words, const std::string& separator);

// Makes the entries under `root`, in the order of the words, and what is missing above them.
void plant(const std::string& root, const std::vector<std::string>& words);

// What is under `root`, sorted by name.
std::vector<std::string> shown(const std::string& root);

std::string archiveOf(const std::vector<std::string>& words);

}  // namespace peltex_test
