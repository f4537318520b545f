#include "core/log.h"

#include <stdarg.h>
#include <stdio.h>

#include <msglog.h>

void logWrite(LogLevel level, LogSite site, const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (level == LOG_LEVEL_ERROR)
        msglog(level, "PTZD", "%s", text);
    printf("[%s:%d]: %s", site.function, site.line, text); // one call, so that lines of several threads do not mix
}
