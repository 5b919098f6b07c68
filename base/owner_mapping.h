// Owners recorded on one device as owners on another.
#pragma once

namespace android::installd {

// Maps the owner and group recorded for one user's application to those of `target_uid`. Returns
// the uid to use and sets `gid_out` to the gid to use. System ids (below 10000) stay, as everything
// does with a target of 0; a group that lies a whole number of users' ranges (10000) above the
// owner moves with it.
unsigned int fixup_owner_dir_file(unsigned int uid, unsigned int gid, unsigned int target_uid,
                                  unsigned int& gid_out);

}  // namespace android::installd
