#include "lab/journal.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cinttypes>

namespace {

/// The five words of a record, "-" for none.
struct WordsText {
    explicit WordsText(const int32_t* word)
    {
        if (word)
            snprintf(text, sizeof(text), "%d,%d,%d,%d,%d", word[0], word[1], word[2], word[3], word[4]);
    }
    char text[64] = "-";
};

} // namespace

int openJournal(const char* folder)
{
    char path[PATH_MAX];
    snprintf(path, sizeof(path), "%s/journal", folder);
    // Straight to the kernel: the preloaded library serves open(), and faults may be put there.
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
}

void appendJournal(int journal, const LabState& state, LabAxisId id, LabAxisEdit& edit, const LabJournalNote& note)
{
    const LabAxisNow now = axisAt(*edit, edit.labNs());
    char line[512]; // the longest has less than 400
    const int length = snprintf(line, sizeof(line),
                                "%" PRId64 " %" PRId64
                                " %d %ld %c %s in=%s result=%d out=%s count=%d shaft=%d rate=%" PRId64 " left=%d\n",
                                edit.realNs() - state.startNs, edit.labNs(), getpid(), syscall(SYS_gettid),
                                id == LAB_PAN ? 'x' : 'y', note.request, WordsText(note.wordsIn).text, note.result,
                                WordsText(note.wordsOut).text, now.count, now.shaft, now.rate, now.left);
    if (write(journal, line, static_cast<size_t>(length)) < 0)
        perror("journal");
}
