// Tests as text: a Markdown document, in which each "## heading" is a test. Its prose says what the
// test is for; its fences hold commands, and with each what comes of it:
//
//   $ backup file @/f @/out = 0     a command, its result, and
//   label @/out info 10123 4        what happened meanwhile, in its order
//   ? backup file @/no @/out = -11 backup failed, copyFile error
//                                   the last event alone
//
// A test runs the commands of its fences one after the other and compares the text that results
// with what the document says. Lines of more than 100 characters go on in lines that begin with
// blanks. What the commands mean is said where they are defined: unit/transcript.h.
//
// With PELTEX_UPDATE set a test writes the text that results into its document:
//
//   scripts/sandbox.sh --write tests/unit -- env PELTEX_UPDATE=1 build/debug/peltex_tests
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace peltex_test {

class TextTest : public testing::Test {
  protected:
    // Runs a command. Returns its result, as it stands behind the command, and leaves in `events`
    // what happened meanwhile.
    virtual std::string run(const std::string& command) = 0;

    // A document's text, with what comes of its commands in the place of what it says.
    std::string played(const std::string& text);

    std::vector<std::string> events;

  private:
    friend void registerTexts(const std::string& document, TextTest* (*make)());

    void TestBody() override;
    std::string outcomeOf(const std::string& line);

    std::string mPath;     // of the document
    std::string mSection;  // of it, with its heading
};

// Registers the tests of a document, by its path below tests/unit/: a suite named as the file, a
// test named as each heading, with "_" for blanks. Called before the tests are listed.
void registerTexts(const std::string& document, TextTest* (*make)());

}  // namespace peltex_test
