#include "process.h"

#include "files.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <thread>

namespace {

struct Pipe {
    Pipe()
    {
        if (pipe2(ends, O_CLOEXEC) != 0)
            ends[0] = ends[1] = -1;
    }
    ~Pipe()
    {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void closeEnd(int end)
    {
        if (ends[end] >= 0)
            close(ends[end]);
        ends[end] = -1;
    }
    int ends[2];
};

/// Gives a signal-safe child the dispositions that a program expects from a shell.
void resetSignals()
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP})
        signal(number, SIG_DFL);
}

/// The child's own pid, so that no moment passes in which it runs without a pid file. Only signal-safe calls.
void writePidFile(const char* path)
{
    char digits[16];
    size_t at = sizeof(digits);
    digits[--at] = '\n';
    for (pid_t pid = getpid(); pid > 0; pid /= 10)
        digits[--at] = static_cast<char>('0' + pid % 10);
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, digits + at, sizeof(digits) - at) < 0)
        _exit(127);
    close(fd);
}

[[noreturn]] void becomeProgram(const ProgramStart& start, char** command, char** environment, pid_t parent, int report)
{
    resetSignals();
    setsid();
    if (start.endWithParent && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent))
        _exit(127);
    writePidFile(start.pidFile.c_str());
    const int log = open(start.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (log >= 0 && nothing >= 0 && dup2(nothing, 0) == 0 && dup2(log, 1) == 1 && dup2(log, 2) == 2)
        execvpe(command[0], command, environment);
    const int problem = errno;
    if (write(report, &problem, sizeof(problem)) < 0)
        _exit(126);
    _exit(127);
}

} // namespace

pid_t startProcess(const ProgramStart& start, std::string& error)
{
    ArgumentList command(start.command);
    ArgumentList environment(start.environment);
    Pipe report;
    const pid_t parent = getpid();
    const pid_t child = fork();
    int problem = errno;
    if (child == 0)
        becomeProgram(start, command.get(), environment.get(), parent, report.ends[1]);
    report.closeEnd(1);
    if (child > 0) {
        if (read(report.ends[0], &problem, sizeof(problem)) <= 0)
            return child; // closed by the exec
        waitpid(child, nullptr, 0);
        unlink(start.pidFile.c_str());
    }
    error = "cannot start " + start.command[0] + ": " + strerror(problem);
    return 0;
}

bool livesIn(pid_t pid, const std::string& folder)
{
    const std::string process = "/proc/" + std::to_string(pid);
    // Empty for a zombie, and for an instant of every exec.
    for (int look = 0; look < 50; ++look) {
        const std::string environment = readFile(process + "/environ");
        if (!environment.empty())
            return ('\0' + environment).find('\0' + ("PTZD_LAB=" + folder) + '\0') != std::string::npos;
        const std::string status = readFile(process + "/stat"); // PID (NAME) STATE ...
        const size_t state = status.rfind(") ");
        if (state == std::string::npos || strchr("ZX", status[state + 2]))
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

pid_t livingProcess(const std::string& pidFile, const std::string& folder)
{
    const pid_t pid = static_cast<pid_t>(strtol(readFile(pidFile).c_str(), nullptr, 10));
    return pid > 0 && livesIn(pid, folder) ? pid : 0;
}

bool sendSignal(pid_t pid, int number)
{
    return pid > 0 && kill(pid, number) == 0;
}

std::optional<int> awaitEnd(pid_t pid, const std::string& folder, std::chrono::milliseconds timeout)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended == pid)
            return status;
        if (ended < 0 && !livesIn(pid, folder))
            return 0;
        if (std::chrono::steady_clock::now() >= end)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

int runCommand(const std::vector<std::string>& command, const std::vector<std::string>& environment,
               std::string& output)
{
    ArgumentList arguments(command);
    ArgumentList variables(environment);
    Pipe text;
    const pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0) {
        resetSignals();
        const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (nothing >= 0 && dup2(nothing, 0) == 0 && dup2(text.ends[1], 1) == 1)
            execvpe(arguments.get()[0], arguments.get(), variables.get());
        _exit(127);
    }
    text.closeEnd(1);
    output.clear();
    char part[4096];
    for (ssize_t got = 0; (got = read(text.ends[0], part, sizeof(part))) > 0 || (got < 0 && errno == EINTR);)
        output.append(part, got > 0 ? static_cast<size_t>(got) : 0);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
