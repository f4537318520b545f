#include "lab/journal.h"

#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct WordText {
    char text[64];
};

WordText wordText(const int32_t* words)
{
    WordText result{"-"};
    if (words)
        snprintf(result.text, sizeof(result.text), "%d,%d,%d,%d,%d", words[0], words[1], words[2], words[3], words[4]);
    return result;
}

void appendLine(const char* folder, const char* line, int length)
{
    char path[PATH_MAX];
    if (snprintf(path, sizeof(path), "%s/journal", folder) >= PATH_MAX)
        return;
    // Opened for each line: a descriptor kept open could be closed, and its number used again, by the program.
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    if (write(fd, line, static_cast<size_t>(length)) < 0)
        perror("journal");
    close(fd);
}

} // namespace

void appendJournal(const char* folder, const LabState& state, LabAxisId id, LabAxisEdit& edit,
                   const LabJournalNote& note)
{
    const LabAxisNow now = axisAt(*edit, edit.labNs());
    char line[512];
    const int length = snprintf(
        line, sizeof(line),
        "%" PRId64 " %" PRId64 " %d %ld %c %s in=%s result=%d out=%s count=%d shaft=%d rate=%" PRId64 " left=%d\n",
        edit.realNs() - state.startNs, edit.labNs(), static_cast<int>(getpid()), syscall(SYS_gettid),
        id == LAB_PAN ? 'x' : 'y', note.request, wordText(note.wordsIn).text, note.result, wordText(note.wordsOut).text,
        now.count, now.shaft, now.rate, now.left);
    if (length > 0 && length < static_cast<int>(sizeof(line)))
        appendLine(folder, line, length);
}
