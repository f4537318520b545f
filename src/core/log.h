// The two log channels: the platform's logger and the console.
#pragma once

enum LogLevel : int {
    LOG_LEVEL_TRACE = 1,
    LOG_LEVEL_NOTE = 2,
    LOG_LEVEL_DEFAULTED = 3,
    LOG_LEVEL_MISS = 4, // a lookup that found nothing
    LOG_LEVEL_ERROR = 5,
};

/// The lowest level that is shown. Messages below it are compiled, so that their formats are checked, but leave nothing
/// in the program.
inline constexpr LogLevel LOG_LEVEL_SHOWN = LOG_LEVEL_ERROR;

/// What the console names as a message's origin.
struct LogSite {
    const char* function;
    int line;
};

/// The place of the call. A function that logs for its caller takes the caller's place as its last parameter,
/// `LogSite site = logSite()`, which its caller leaves out.
[[nodiscard]] constexpr LogSite logSite(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    return {function, line};
}

/// Logs one message, which carries its own line feed: on the console behind "[function:line]: " and, at level 5, with
/// the platform's logger under the tag "PTZD". Messages past 1023 bytes are cut. Any thread; takes no lock of ours.
void logWrite(LogLevel level, LogSite site, const char* format, ...) __attribute__((format(printf, 3, 4)));

#define LOG_AT(level, ...)                                                                                             \
    do {                                                                                                               \
        if constexpr ((level) >= LOG_LEVEL_SHOWN)                                                                      \
            logWrite((level), {__func__, __LINE__}, __VA_ARGS__);                                                      \
    } while (false)
#define LOG_ERROR(...) LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
#define LOG_TRACE(...) LOG_AT(LOG_LEVEL_TRACE, __VA_ARGS__)
