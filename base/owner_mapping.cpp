// Tested by tests/unit/tasks.md.
#include "base/owner_mapping.h"

namespace android::installd {

namespace {

constexpr unsigned int kFirstApplicationUid = 10000;
constexpr unsigned int kUserRange = 10000;

}  // namespace

unsigned int fixup_owner_dir_file(unsigned int uid, unsigned int gid, unsigned int target_uid,
                                  unsigned int& gid_out) {
    gid_out = gid;
    if (uid < kFirstApplicationUid || target_uid == 0) {
        return uid;
    }
    const unsigned int distance = gid - uid;
    if (distance % kUserRange == 0) {
        gid_out = distance + target_uid;
    }
    return target_uid;
}

}  // namespace android::installd
