#include "context.h"

#include "lab/state_file.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace {

constinit std::atomic<const char*> gFolder{nullptr}; // "" once we know that there is none
constinit std::atomic<LabState*> gState{nullptr};
constinit std::atomic<bool> gStateMissing{false};

void say(const char* folder, const char* problem)
{
    char text[512];
    const int length = snprintf(text, sizeof(text), "PTZD_LAB=%s: %s\n", folder, problem);
    if (length > 0 && write(STDERR_FILENO, text, strnlen(text, sizeof(text))) < 0)
        return; // nobody to tell
}

} // namespace

const char* labFolder()
{
    const char* folder = gFolder.load(std::memory_order_acquire);
    if (!folder) {
        if (!environ)
            return nullptr; // too early to know; ask again
        const char* named = getenv("PTZD_LAB");
        folder = named ? strdup(named) : nullptr;
        if (folder && folder[0] && folder[0] != '/')
            say(folder, "not an absolute path, so this program runs outside the lab");
        if (!folder || folder[0] != '/')
            folder = "";
        gFolder.store(folder, std::memory_order_release);
    }
    return folder[0] ? folder : nullptr;
}

LabState* labState()
{
    LabState* state = gState.load(std::memory_order_acquire);
    if (state || gStateMissing.load(std::memory_order_relaxed))
        return state;
    const int keep = errno;
    const char* folder = labFolder();
    if (!folder) {
        gStateMissing.store(environ != nullptr);
        errno = keep;
        return nullptr;
    }
    LabState* fresh = mapLabState(folder);
    if (!fresh && !gStateMissing.exchange(true))
        say(folder, errno == EPROTO ? "its state file is of another version" : "there is no lab here");
    if (fresh && !gState.compare_exchange_strong(state, fresh)) {
        munmap(fresh, sizeof(LabState)); // another thread was first
        fresh = state;
    }
    errno = keep;
    return fresh;
}

void* nextDefinition(std::atomic<void*>& slot, const char* name)
{
    void* found = slot.load(std::memory_order_acquire);
    if (found)
        return found;
    found = dlsym(RTLD_NEXT, name);
    if (!found) {
        fprintf(stderr, "lab: the C library has no %s\n", name);
        abort();
    }
    slot.store(found, std::memory_order_release);
    return found;
}
