#include "fault_calls.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

Fault plannedFault = Fault::None;
int callsLeft = 0;

// True for the call that is to fail.
bool meets()
{
    if (plannedFault == Fault::None || --callsLeft != 0)
        return false;
    if (plannedFault == Fault::Die)
        _exit(9);
    errno = ENOSPC;
    return true;
}

template <typename Call>
Call* real(Call*, const char* name)
{
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

} // namespace

void plan(Fault fault, int nth)
{
    plannedFault = fault;
    callsLeft = nth;
}

bool planMet()
{
    plannedFault = Fault::None;
    return callsLeft <= 0;
}

extern "C" {

ssize_t write(int fd, const void* data, size_t size)
{
    static const auto call = real(&write, "write");
    if (plannedFault != Fault::None && callsLeft == 1)
        call(fd, data, size / 2);
    return meets() ? -1 : call(fd, data, size);
}

int fsync(int fd)
{
    static const auto call = real(&fsync, "fsync");
    return meets() ? -1 : call(fd);
}

int ftruncate(int fd, off_t size) noexcept
{
    static const auto call = real(&ftruncate, "ftruncate");
    return meets() ? -1 : call(fd, size);
}

int fchmod(int fd, mode_t mode) noexcept
{
    static const auto call = real(&fchmod, "fchmod");
    return meets() ? -1 : call(fd, mode);
}

int mkdir(const char* path, mode_t mode) noexcept
{
    static const auto call = real(&mkdir, "mkdir");
    return meets() ? -1 : call(path, mode);
}

int mkstemp(char* path)
{
    static const auto call = real(&mkstemp, "mkstemp");
    return meets() ? -1 : call(path);
}

int rename(const char* from, const char* to) noexcept
{
    static const auto call = real(&rename, "rename");
    return meets() ? -1 : call(from, to);
}

int unlink(const char* path) noexcept
{
    static const auto call = real(&unlink, "unlink");
    return meets() ? -1 : call(path);
}
}
