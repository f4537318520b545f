// What the rigs of the unit tests and the fuzzers share besides the daemon: their checks and their files.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <span>
#include <string>
#include <string_view>

using Bytes = std::span<const uint8_t>;

/// Ends the process, which is the finding, unless a condition holds.
#define RIG_CHECK(condition, ...)                                                                                      \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                                  \
            fprintf(stderr, "" __VA_ARGS__);                                                                           \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (false)

/// A folder of this process in memory (/dev/shm) or /tmp, removed at its end; with a name, a folder in it, created.
std::string rigFolder(const std::string& name = "");

/// A whole file; empty when it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, std::string_view text);
