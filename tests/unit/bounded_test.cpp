// The commands of bounded.md.
#include "bounded/bounded.h"

#include <algorithm>
#include <utility>

#include "tests/unit/transcript.h"

namespace peltex_test {

void addBoundedCommands(Transcript& t) {
    using Call = int (*)(char* to, size_t size, const char* from, size_t count);
    const std::pair<const char*, Call> functions[] = {
        {"copy", [](char* to, size_t size, const char* from,
                    size_t count) { return memcpy_s(to, size, from, count); }},
        {"fill", [](char* to, size_t size, const char* from,
                    size_t count) { return memset_s(to, size, from[0], count); }},
        {"string", [](char* to, size_t size, const char* from,
                      size_t count) { return strncpy_s(to, size, from, count); }},
        {"format",
         [](char* to, size_t size, const char* from, size_t) {
             return sprintf_s(to, size, from == nullptr ? nullptr : "%s", from);
         }},
        {"format_n", [](char* to, size_t size, const char* from,
                        size_t count) { return snprintf_s(to, size, count, "%s", from); }},
        {"format_cut", [](char* to, size_t size, const char* from,
                          size_t) { return snprintf_truncated_s(to, size, "%s", from); }},
    };
    for (const auto& [name, function] : functions) {
        t.commands[name] = [function = function](const Lines& words) {
            char room[] = "########!";
            char* to = words.at(0) == "null" ? nullptr : room + std::stoul(words[0]);
            const char* from =
                words.at(2)[0] == '+' ? room + std::stoul(words[2]) : pathOf(words[2]);
            const int result = function(to, std::stoul(words.at(1)), from,
                                        std::stoul(words.size() > 3 ? words[3] : "0"));
            EXPECT_EQ(room[8], '!');
            std::replace(room, room + 8, '\0', '.');
            return "= " + std::to_string(result) + " " + std::string(room, 8);
        };
    }
}

}  // namespace peltex_test
