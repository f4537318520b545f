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

// A call that does what it always does unless it is the one that is to fail.
#define FAULTY_CALL(name, parameters, arguments)                                                                       \
    int name parameters                                                                                                \
    {                                                                                                                  \
        static const auto call = real(&name, #name);                                                                   \
        return meets() ? -1 : call arguments;                                                                          \
    }                                                                                                                  \
    static_assert(true)

FAULTY_CALL(fsync, (int fd), (fd));
FAULTY_CALL(ftruncate, (int fd, off_t size) noexcept, (fd, size));
FAULTY_CALL(fchmod, (int fd, mode_t mode) noexcept, (fd, mode));
FAULTY_CALL(mkdir, (const char* path, mode_t mode) noexcept, (path, mode));
FAULTY_CALL(mkstemp, (char* path), (path));
FAULTY_CALL(rename, (const char* from, const char* to) noexcept, (from, to));
FAULTY_CALL(unlink, (const char* path) noexcept, (path));
}
