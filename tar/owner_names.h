// Names of users and groups, looked up once per id: asking the user database for every entry costs
// more than packing it. Memory is bounded: ids that share a slot take it from one another.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>

namespace android::installd {

class OwnerNames {
  public:
    // The name of the id, or the id in decimal digits when it has none. Valid until the next call.
    const std::string& userName(uid_t uid);
    const std::string& groupName(gid_t gid);

  private:
    static constexpr size_t kSlots = 64;

    struct Slot {
        bool isUsed = false;
        unsigned int id = 0;
        std::string name;
    };
    using Slots = std::array<Slot, kSlots>;

    template <typename Lookup>
    static const std::string& find(Slots& slots, unsigned int id, Lookup lookup);

    Slots mUsers;
    Slots mGroups;
};

}  // namespace android::installd
