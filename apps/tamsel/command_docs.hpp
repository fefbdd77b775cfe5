#pragma once
// Shell completion scripts and the manual page, generated from the command tree itself so that
// a new command or option appears in them without anyone editing a second list.
#include <string>

namespace CLI {
class App;
}

namespace tamsel::cli {

// A completion script for "bash" or "zsh": commands, subcommands and their options.
std::string completionScript(const CLI::App& app, const std::string& shell);

// The manual page in roff (man(7)): every command with its options.
std::string manualPage(const CLI::App& app, const std::string& version);

}  // namespace tamsel::cli
