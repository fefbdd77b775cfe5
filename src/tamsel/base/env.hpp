#pragma once
// Process environment access. Reads and writes go through one lock so that a write
// (the presence token) never races a read on another thread.
#include <optional>
#include <string>
#include <vector>

namespace tamsel::base::env {

std::optional<std::string> get(const char* name);
void set(const char* name, const std::string& value);
// Every variable as "NAME=value", e.g. for a child's environment.
std::vector<std::string> all();

// The user's home folder: $HOME, else the password database.
std::string homeDirectory();

}  // namespace tamsel::base::env
