#include "msglog.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

/* One write() a line, so that lines of several threads and processes never mix. */
static void appendToFile(const char* path, int level, const char* tag, const char* text)
{
    struct timespec now;
    struct tm local;
    char line[1200];
    size_t length = strlen(text);
    int size;
    int fd;

    while (length > 0 && text[length - 1] == '\n')
        --length;
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    size = snprintf(line, sizeof(line), "%04d-%02d-%02d %02d:%02d:%02d.%03ld %d %s: %.*s\n", local.tm_year + 1900,
                    local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1000000,
                    level, tag, (int)length, text);
    if (size < 0)
        return;
    if ((size_t)size >= sizeof(line)) {
        size = (int)sizeof(line) - 1;
        line[size - 1] = '\n';
    }
    fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    if (write(fd, line, (size_t)size) < 0)
        syslog(LOG_ERR, "%s: %.*s", tag, (int)length, text);
    close(fd);
}

void msglog(int level, const char* tag, const char* format, ...)
{
    const char* file = getenv("MSGLOG_FILE");
    char text[1024];
    va_list args;

    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (file)
        appendToFile(file, level, tag, text);
    else
        syslog(level >= 5 ? LOG_ERR : LOG_INFO, "%s: %s", tag, text);
}
