// Checks of arguments, and the ends that come of them.

#include "command.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>
#include <cmath>

namespace {

const char* gErrorPrefix = "";

} // namespace

void die(ExitStatus status, const char* format, ...)
{
    fflush(stdout); // what was printed before comes before
    fprintf(stderr, "ptzctl: %s", gErrorPrefix);
    va_list values;
    va_start(values, format);
    (void)vfprintf(stderr, format, values);
    va_end(values);
    fputc('\n', stderr);
    exit(status);
}

void setErrorPrefix(const char* prefix)
{
    gErrorPrefix = prefix;
}

void quit(int status)
{
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        die(EXIT_OTHER, "standard output cannot be written");
    exit(status);
}

int32_t integerArgument(const char* text, int32_t low, int32_t high, const char* what)
{
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < low || value > high)
        die(EXIT_USAGE, "%s is a whole number from %d to %d, not \"%s\"", what, low, high, text);
    return static_cast<int32_t>(value);
}

bool parseDecimal(const char* text, double low, double high, double& out)
{
    char* end = nullptr;
    const double value = strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(value) || value < low || value > high)
        return false;
    out = value;
    return true;
}

int32_t rounded(double value)
{
    const double away = value < 0 ? value - 0.5 : value + 0.5;
    return static_cast<int32_t>(std::clamp<double>(away, INT32_MIN, INT32_MAX));
}

size_t wordArgument(const char* text, std::span<const char* const> words, const char* what)
{
    for (size_t i = 0; i < words.size(); ++i)
        if (strcasecmp(text, words[i]) == 0)
            return i;
    char list[160] = "";
    size_t used = 0;
    for (const char* word : words)
        if (used < sizeof(list))
            used +=
                static_cast<size_t>(snprintf(list + used, sizeof(list) - used, "%s%s", used == 0 ? "" : ", ", word));
    die(EXIT_USAGE, "%s is one of %s, not \"%s\"", what, list, text);
}
