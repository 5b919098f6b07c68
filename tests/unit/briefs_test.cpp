// The commands of briefs.md and records.md.
#include <stdio.h>

#include <algorithm>

#include "brief/permission_record.h"
#include "brief/search_rules.h"
#include "tests/unit/transcript.h"

namespace peltex_test {

using namespace android::installd;

namespace {

// The records in a text, each without its newline.
Lines recordsIn(std::string text) {
    Lines records;
    while (!text.empty()) {
        // A name may hold a newline: a record ends before the next path.
        const size_t end = std::min(text.find("\n/"), text.size() - 1);
        records.push_back(text.substr(0, end));
        text.erase(0, end + 1);
    }
    return records;
}

android::Vector<std::string> vectorOf(const Lines& lines) {
    android::Vector<std::string> result;
    for (const std::string& line : lines) {
        result.add(line);
    }
    return result;
}

}  // namespace

void addBriefCommands(Transcript& t) {
    // What a brief has, in some order: directories may be read in any.
    t.commands["brief"] = [](const Lines& words) {
        Lines records = recordsIn(readFile(words.at(0)));
        std::sort(records.begin(), records.end());
        return "= " + joined(records, " ");
    };
    // A brief by a search file of these lines.
    t.commands["search"] = [&t](const Lines& words) {
        const std::string brief = t.tree / "brief";
        writeFile(t.tree / "rules", joined(words, "\n") + "\n");
        const std::string result = t.commands["get_brief byfile"]({t.tree / "rules", brief});
        return result + (result == "= 0" ? ": " + t.commands["brief"]({brief}).substr(2) : "");
    };
    // A backup by a brief of this text: its own records, and what is in it.
    t.commands["follow"] = [&t](const Lines& words) {
        const std::string to = t.tree / "bk/_a";
        t.commands["unlink"]({t.tree / "bk"});
        writeFile(t.tree / "list", joined(words, ""));
        const std::string result = t.commands["backup byfile"]({t.tree / "list", to});
        return result + ": " + joined(recordsIn(readFile(to + "/_a.txt")), " ") + " -> " +
               joined(shown(to + "/_a"), " ");
    };
    // A line: how many fields, then mode, type, size and time; 77 is what was there before.
    t.commands["record"] = [](const Lines& words) {
        File_info info;
        info.mode = info.type = 77;
        info.size = info.modified_time = 77;
        std::string line = words.at(0);
        const int fields = parse_line_info(line.data(), info);
        EXPECT_TRUE(fields < 5 || words[0].find(info.path + std::string(";")) == 0);
        std::string text = "=";
        for (const int64_t number : {int64_t{fields}, int64_t{info.mode}, int64_t{info.type},
                                     info.size, info.modified_time}) {
            text += " " + std::to_string(number);
        }
        return text;
    };
    t.commands["describe"] = [&t](const Lines& words) {
        const std::string file = words.size() > 1 ? words[1] : t.tree / "described";
        FILE* stream = fopen(file.c_str(), "we");
        setvbuf(stream, nullptr, _IONBF, 0);
        const int result = do_backup_perm(words.at(0).c_str(), stream);
        fclose(stream);
        return "= " + (words.size() > 1 || result != 0 ? std::to_string(result) : readFile(file));
    };
    // Gives back what a file of this text says of a directory's entries, and labels these.
    t.commands["attributes"] = [&t](const Lines& words) {
        const bool isThere = words.size() != 2 || words[1] != "null";
        const std::string file = t.tree / "attributes.txt";
        writeFile(file, joined({words.begin() + 1, words.end()}, ""));
        return "= " + std::to_string(restore_application_from_infofile(
                          words.at(0).c_str(), isThere ? file.c_str() : nullptr, "default"));
    };
    // What contains no other, after what is held already.
    t.commands["filter"] = [](const Lines& words) {
        android::Vector<std::string> result = vectorOf({words.at(0)});
        FilterPath(vectorOf({words.begin() + 1, words.end()}), result);
        return "= " + joined({result.begin(), result.end()}, " ");
    };
    t.commands["excluded"] = [](const Lines& words) {
        const ExcludeRules rules = vectorOf({words.begin() + 1, words.end()});
        return "= " + std::to_string(NeedFilterWithExclude(pathOf(words.at(0)), rules));
    };
}

}  // namespace peltex_test
