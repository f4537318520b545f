// The two log channels: the platform's logger and the console.
#pragma once

enum LogLevel : int {
    LOG_LEVEL_TRACE = 1,
    LOG_LEVEL_NOTE = 2,
    LOG_LEVEL_DEFAULTED = 3,
    LOG_LEVEL_MISS = 4, // a lookup that found nothing
    LOG_LEVEL_ERROR = 5,
};

/// Reports one message, which carries its own line feed: level 5 to the platform's logger under the tag "PTZD", levels
/// 5 and 6 to the console behind "[function:line]: ". Lower levels cost a comparison and are not shown. Messages past
/// 1023 bytes are cut. Any thread; takes no lock of ours.
void logWrite(int level, const char* function, int line, const char* format, ...) __attribute__((format(printf, 4, 5)));

#define LOG_AT(level, ...) logWrite((level), __func__, __LINE__, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
#define LOG_TRACE(...) LOG_AT(LOG_LEVEL_TRACE, __VA_ARGS__)
