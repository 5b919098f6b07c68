#include "tests/unit/text_test.h"

#include <ctype.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

#include "tests/support/jail.h"
#include "tests/support/test_files.h"

namespace peltex_test {
namespace {

// Of no class: others register before this file is initialised.
constexpr const char* kHeading = "\n## ";

// "What happens meanwhile" as "What_happens_meanwhile".
std::string nameOf(std::string heading) {
    std::replace(heading.begin(), heading.end(), ' ', '_');
    heading[0] = static_cast<char>(toupper(heading[0]));
    return heading;
}

// Lines of at most 100 characters where blanks behind the command, which is read again, allow it.
std::string folded(std::string line, size_t command = 0) {
    std::string text;
    while (line.size() > 100) {
        size_t blank = line.rfind(' ', 100);
        if (blank == line.npos || blank < std::max<size_t>(command, 4)) {
            blank = line.find(' ', std::max<size_t>(command, 100));
        }
        if (blank == line.npos) {
            break;
        }
        text += line.substr(0, line.find_last_not_of(' ', blank) + 1) + "\n";
        line.replace(0, blank + 1, "    ");
        command = 0;
    }
    return text + line + "\n";
}

}  // namespace

std::string TextTest::outcomeOf(const std::string& line) {
    const std::string command = line.substr(0, line.find(" ="));
    std::string result = run(command.substr(2));
    result = command + (result.empty() ? "" : " ") + result;
    if (line[0] == '?') {
        return folded(result + (events.empty() ? "" : " " + events.back()), command.size());
    }
    std::string text = folded(result, command.size());
    for (const std::string& event : events) {
        text += folded(event);
    }
    return text;
}

std::string TextTest::played(const std::string& section) {
    std::string text;
    bool isFenced = false;
    std::istringstream lines(section);
    for (std::string line; std::getline(lines, line);) {
        const bool isFence = line.find("```") == 0;
        isFenced = isFenced != isFence;
        if (!isFenced || isFence || line.empty() || line[0] == '#') {
            text += line + "\n";
        } else if (line[0] == '$' || line[0] == '?') {
            text += outcomeOf(line);
        }
    }
    return text;
}

void TextTest::TestBody() {
    const std::string actual = played(mSection);
    if (getenv("PELTEX_UPDATE") == nullptr) {
        EXPECT_EQ(actual, mSection);
    } else {
        std::string document = readFile(mPath);
        document.replace(document.find(mSection), mSection.size(), actual);
        writeFile(mPath, document);
    }
}

void registerTexts(const std::string& document, TextTest* (*make)()) {
    const std::string path = PELTEX_UNIT_TESTS "/" + document;
    const std::string text = readFile(path);
    const size_t stem = document.rfind('/') + 1;
    const std::string suite = nameOf(document.substr(stem, document.rfind('.') - stem));
    size_t at = text.find(kHeading);
    if (at == text.npos) {
        fail("%s is no document of tests", path.c_str());
    }
    while (at != text.npos) {
        const size_t end = text.find(kHeading, at + 1);
        const std::string section = text.substr(at, end == text.npos ? end : end + 1 - at);
        const std::string heading = section.substr(4, section.find('\n', 4) - 4);
        const auto line = std::count(text.begin(), text.begin() + static_cast<long>(at) + 1, '\n');
        testing::RegisterTest(suite.c_str(), nameOf(heading).c_str(), nullptr, nullptr,
                              path.c_str(), static_cast<int>(line) + 1, [=] {
                                  TextTest* test = make();
                                  test->mPath = path;
                                  test->mSection = section;
                                  return test;
                              });
        at = end;
    }
}

}  // namespace peltex_test
