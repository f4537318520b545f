#include "process.h"

#include <algorithm>
#include <csignal>
#include <utility>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

// Reads what is there; false at the end.
bool appendFrom(int fd, std::string& to)
{
    char bytes[4096];
    const ssize_t count = read(fd, bytes, sizeof bytes);
    if (count <= 0)
        return false;
    to.append(bytes, static_cast<size_t>(count));
    return true;
}

void closeOnce(int& fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

} // namespace

std::chrono::milliseconds processorTime()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval& time) { return time.tv_sec * 1000 + time.tv_usec / 1000; };
    return std::chrono::milliseconds(ms(usage.ru_utime) + ms(usage.ru_stime));
}

Process::Process(const std::vector<std::string>& arguments, Stderr standardError, const char* file)
{
    int outPipe[2];
    int errPipe[2];
    EXPECT_EQ(pipe2(outPipe, O_CLOEXEC), 0);
    if (standardError == Stderr::Pipe) {
        EXPECT_EQ(pipe2(errPipe, O_CLOEXEC), 0);
    } else {
        termios raw{};
        cfmakeraw(&raw); // line feeds shall come as they are
        EXPECT_EQ(openpty(&errPipe[0], &errPipe[1], nullptr, &raw, nullptr), 0);
        fcntl(errPipe[0], F_SETFD, FD_CLOEXEC);
    }
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        for (const int number : {SIGINT, SIGTERM, SIGHUP})
            std::signal(number, SIG_DFL); // a test run in the background ignores some of them
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        execv(file ? file : argv[0], argv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    outFd_ = outPipe[0];
    errFd_ = errPipe[0];
}

Process::~Process()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    closeOnce(outFd_);
    closeOnce(errFd_);
}

void Process::signal(int number) const
{
    ASSERT_GT(pid_, 0); // any other number names more than one process
    EXPECT_EQ(kill(pid_, number), 0);
}

// False when nothing comes in that time, and nothing has ended.
bool Process::readSome(std::chrono::milliseconds wait)
{
    pollfd entries[] = {{.fd = outFd_, .events = POLLIN, .revents = 0}, {.fd = errFd_, .events = POLLIN, .revents = 0}};
    if (poll(entries, std::size(entries), static_cast<int>(wait.count())) <= 0)
        return false;
    if (entries[0].revents && !appendFrom(outFd_, out))
        closeOnce(outFd_);
    if (entries[1].revents && !appendFrom(errFd_, err))
        closeOnce(errFd_);
    return true;
}

void Process::readOrFail()
{
    if (readSome(DEADLINE))
        return;
    ADD_FAILURE() << "the process neither prints nor ends";
    signal(SIGKILL);
}

int Process::wait()
{
    while (outFd_ >= 0 || errFd_ >= 0)
        readOrFail();
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

std::string Process::readLine()
{
    while (outFd_ >= 0 && out.find('\n', lineAt_) == std::string::npos)
        readOrFail();
    const size_t end = std::min(out.find('\n', lineAt_), out.size());
    const std::string line = out.substr(lineAt_, end - lineAt_);
    lineAt_ = std::min(end + 1, out.size());
    return line;
}

bool Process::hasLine()
{
    while (outFd_ >= 0 && out.find('\n', lineAt_) == std::string::npos && readSome({})) {
    }
    return out.find('\n', lineAt_) != std::string::npos;
}
