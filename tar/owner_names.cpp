// Tested by tests/unit/archives.md.
#include "tar/owner_names.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>

#include <vector>

namespace android::installd {

namespace {

// The largest holds a group with tens of thousands of members.
constexpr size_t kFirstRecordSize = 1024;
constexpr size_t kLargestRecordSize = 1048576;

// Calls `get` (getpwuid_r or getgrgid_r) with a buffer as large as the record needs. Returns
// whether there is a record, which then points into `buffer`.
template <typename Record, typename Get, typename Id>
bool getRecord(Get get, Id id, Record& record, std::vector<char>& buffer) {
    for (size_t size = kFirstRecordSize; size <= kLargestRecordSize; size *= 4) {
        buffer.resize(size);
        Record* found = nullptr;
        const int error = get(id, &record, buffer.data(), buffer.size(), &found);
        if (error != ERANGE) {
            return error == 0 && found != nullptr;
        }
    }
    return false;
}

std::string lookUpUser(uid_t uid) {
    struct passwd record = {};
    std::vector<char> buffer;
    return getRecord(getpwuid_r, uid, record, buffer) ? record.pw_name
                                                      : std::to_string(static_cast<int>(uid));
}

std::string lookUpGroup(gid_t gid) {
    struct group record = {};
    std::vector<char> buffer;
    return getRecord(getgrgid_r, gid, record, buffer) ? record.gr_name
                                                      : std::to_string(static_cast<int>(gid));
}

}  // namespace

template <typename Lookup>
const std::string& OwnerNames::find(Slots& slots, unsigned int id, Lookup lookup) {
    Slot& slot = slots[id % kSlots];
    if (!slot.isUsed || slot.id != id) {
        slot = {true, id, lookup(id)};
    }
    return slot.name;
}

const std::string& OwnerNames::userName(uid_t uid) {
    return find(mUsers, uid, lookUpUser);
}

const std::string& OwnerNames::groupName(gid_t gid) {
    return find(mGroups, gid, lookUpGroup);
}

}  // namespace android::installd
