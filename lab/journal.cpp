#include "lab/journal.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>

namespace {

/// A line in the making. printf would take as long as the write.
class Line {
public:
    Line& operator<<(const char* text)
    {
        const size_t length = strnlen(text, static_cast<size_t>(text_ + sizeof(text_) - end_));
        memcpy(end_, text, length);
        end_ += length;
        return *this;
    }
    Line& operator<<(int64_t number)
    {
        end_ = std::to_chars(end_, text_ + sizeof(text_), number).ptr;
        return *this;
    }
    void addWords(const int32_t* words)
    {
        for (int i = 0; words && i < LAB_WORDS; ++i)
            *this << (i == 0 ? "" : ",") << words[i];
        if (!words)
            *this << "-";
    }
    [[nodiscard]] const char* text() const
    {
        return text_;
    }
    [[nodiscard]] size_t length() const
    {
        return static_cast<size_t>(end_ - text_);
    }

private:
    char text_[512]; // the longest line has less than 400
    char* end_ = text_;
};

struct Caller {
    pid_t process;
    pid_t thread;
};

/// One system call where there would be two: only a fork changes the thread's number, and the process's with it.
Caller thisCaller()
{
    // Of this model because the other ones may allocate.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local Caller caller{};
    const pid_t process = getpid();
    if (caller.process != process)
        caller = {process, static_cast<pid_t>(syscall(SYS_gettid))};
    return caller;
}

} // namespace

int openJournal(const char* folder)
{
    char path[PATH_MAX];
    if (snprintf(path, sizeof(path), "%s/journal", folder) >= PATH_MAX)
        return -1;
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

void appendJournal(int journal, const LabState& state, LabAxisId id, LabAxisEdit& edit, const LabJournalNote& note)
{
    const LabAxisNow now = axisAt(*edit, edit.labNs());
    const Caller caller = thisCaller();
    Line line;
    line << edit.realNs() - state.startNs << " " << edit.labNs() << " " << caller.process << " " << caller.thread
         << (id == LAB_PAN ? " x " : " y ") << note.request << " in=";
    line.addWords(note.wordsIn);
    line << " result=" << note.result << " out=";
    line.addWords(note.wordsOut);
    line << " count=" << now.count << " shaft=" << now.shaft << " rate=" << now.rate << " left=" << now.left << "\n";
    if (journal >= 0 && write(journal, line.text(), line.length()) < 0)
        perror("journal");
}
