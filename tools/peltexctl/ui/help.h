// The texts of --help that no option carries.
#pragma once

#include <string>

namespace peltexctl {

// What stands behind the options of a subcommand, or of the program for the empty name.
std::string HelpFooter(const std::string& subcommand);

}  // namespace peltexctl
