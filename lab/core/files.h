#pragma once
// Small file helpers of the launcher. All may run on any thread; false and errno (or nothing) when they fail.

#include <string>

/// The whole text of a file; empty when it cannot be read.
std::string readFile(const std::string& path);
/// Replaces a file; a reader sees the old or the new text, whole.
bool writeFile(const std::string& path, const std::string& text);
/// The last lines of a text, each indented by two blanks.
std::string tailOf(const std::string& text, size_t lines);
