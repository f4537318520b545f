// A preloaded library that makes chosen calls of the daemon fail. It stands before the lab's own preloaded library and
// acts in programs named ptzd only. Which calls fail is told through the file that PTZD_FAULTS names, at any time.
//
// Calls of libraries and of the C library count when the daemon's own code makes them, so that neither the lab nor the
// libraries' insides change the numbering; calls on files count by the file's path.

#include "fault_control.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
#include <uci.h>

#ifndef FAULTS_WITHOUT_HEAP
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
#endif
}

namespace {

constinit std::atomic<FaultControl*> gControl{nullptr};
constinit std::atomic<bool> gNone{false};

/// Neither allocates nor calls anything that is preloaded. Null outside the daemon.
FaultControl* control()
{
    FaultControl* mapped = gControl.load(std::memory_order_acquire);
    if (mapped || gNone.load() || !environ || !program_invocation_short_name)
        return mapped;
    const int keep = errno;
    const char* path = strcmp(program_invocation_short_name, "ptzd") == 0 ? getenv("PTZD_FAULTS") : nullptr;
    const long fd = path ? syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC) : -1;
    void* memory =
        fd < 0 ? MAP_FAILED
               : mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(fd), 0);
    if (fd >= 0)
        syscall(SYS_close, fd);
    if (memory == MAP_FAILED) {
        gNone.store(true);
    } else {
        mapped = static_cast<FaultControl*>(memory); // a second mapping by another thread does no harm
        gControl.store(mapped, std::memory_order_release);
    }
    errno = keep;
    return mapped;
}

/// Whether an address lies in the code of the program itself.
bool inProgram(const void* caller)
{
    const auto* headers = reinterpret_cast<const ElfW(Phdr)*>(getauxval(AT_PHDR));
    const size_t count = getauxval(AT_PHNUM);
    const auto address = reinterpret_cast<uintptr_t>(caller);
    uintptr_t base = 0;
    for (size_t i = 0; i < count; ++i)
        if (headers[i].p_type == PT_PHDR)
            base = reinterpret_cast<uintptr_t>(headers) - headers[i].p_vaddr;
    for (size_t i = 0; i < count; ++i) {
        const uintptr_t start = base + headers[i].p_vaddr;
        if (headers[i].p_type == PT_LOAD && (headers[i].p_flags & PF_X) != 0 && address >= start &&
            address < start + headers[i].p_memsz)
            return true;
    }
    return false;
}

/// The error of a call that is to fail, else 0. Counts the call.
int faultAt(FaultCall call, const char* subject)
{
    FaultControl* shared = control();
    if (!shared)
        return 0;
    FaultRecord& record = shared->calls[call];
    const int32_t failures = record.failures.load(std::memory_order_acquire);
    if (record.subject[0] != '\0' && (!subject || !strstr(subject, record.subject)))
        return 0;
    record.seen.fetch_add(1);
    if (failures == 0 || record.passes.fetch_sub(1) > 0)
        return 0;
    if (failures > 0 && record.failures.fetch_sub(1) <= 0)
        return 0;
    record.met.fetch_add(1);
    return record.error.load();
}

int faultOf(FaultCall call, const void* caller, const char* subject = nullptr)
{
    return control() && inProgram(caller) ? faultAt(call, subject) : 0;
}

int failed(int error)
{
    errno = error;
    return -1;
}

/// The path behind a descriptor, for calls that have only that.
struct PathOf {
    explicit PathOf(int fd)
    {
        char link[32];
        (void)snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
        const long length = syscall(SYS_readlinkat, AT_FDCWD, link, text, sizeof(text) - 1);
        text[length > 0 ? length : 0] = '\0';
    }
    /// The last two names; a folder ends with a slash, which tells it from what is in it.
    const char* tail(int fd)
    {
        struct stat info {};
        if (fstat(fd, &info) == 0 && S_ISDIR(info.st_mode))
            strncat(text, "/", sizeof(text) - strlen(text) - 1);
        const char* from = text + strlen(text);
        for (int slashes = S_ISDIR(info.st_mode) ? 3 : 2; from > text && slashes > 0; --from)
            slashes -= from[-1] == '/' ? 1 : 0;
        return from;
    }
    char text[512];
};

int openFault(const char* path, int flags)
{
    if (const int error = faultAt(FAULT_OPEN, path))
        return error;
    return (flags & (O_CREAT | O_WRONLY | O_RDWR)) != 0 ? faultAt(FAULT_CREATE, path) : 0;
}

#ifndef FAULTS_WITHOUT_HEAP
constinit std::atomic<bool> gStarted{false};

/// Allocations count from here on. What ran before is no work of the daemon's, and by now the lab, which stands behind
/// this library, has copied its folder's name for good: its only allocation but the records of timers that expire.
__attribute__((constructor)) void started()
{
    (void)access("/", F_OK);
    gStarted.store(true);
}

thread_local __attribute__((tls_model("initial-exec"))) bool gSpared = false;

bool allocationFails()
{
    if (!gStarted.load(std::memory_order_relaxed) || gSpared || faultAt(FAULT_ALLOCATION, nullptr) == 0)
        return false;
    errno = ENOMEM;
    return true;
}
#endif

void* definition(std::atomic<void*>& slot, const char* name)
{
    void* found = slot.load(std::memory_order_acquire);
    if (!found) {
        found = dlsym(RTLD_NEXT, name);
        if (!found)
            abort();
        slot.store(found, std::memory_order_release);
    }
    return found;
}

} // namespace

#define NEXT(function)                                                                                                 \
    ([] {                                                                                                              \
        static constinit std::atomic<void*> slot{nullptr};                                                             \
        return reinterpret_cast<decltype(&::function)>(definition(slot, #function));                                   \
    }())
#define FAULT(call, ...) faultOf(call, __builtin_return_address(0) __VA_OPT__(, ) __VA_ARGS__)

extern "C" {

int pipe2(int ends[2], int flags) noexcept
{
    const int error = FAULT(FAULT_PIPE2);
    return error ? failed(error) : NEXT(pipe2)(ends, flags);
}

int timer_create(clockid_t clock, sigevent* event, timer_t* id) noexcept
{
    const int error = FAULT(FAULT_TIMER_CREATE);
    return error ? failed(error) : NEXT(timer_create)(clock, event, id);
}

int timer_settime(timer_t id, int flags, const itimerspec* value, itimerspec* old) noexcept
{
    const int error = FAULT(FAULT_TIMER_SETTIME);
    return error ? failed(error) : NEXT(timer_settime)(id, flags, value, old);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept
{
#ifdef FAULTS_WITH_SANITIZERS_THREAD
    // ThreadSanitizer starts a thread of its own with the program's first one, and without attributes.
    const int error = attributes ? FAULT(FAULT_PTHREAD_CREATE) : 0;
#else
    const int error = FAULT(FAULT_PTHREAD_CREATE);
#endif
    return error ? error : NEXT(pthread_create)(thread, attributes, routine, argument);
}

// The heap of a sanitizer is in the program and cannot be preloaded.
#ifndef FAULTS_WITHOUT_HEAP
void* malloc(size_t size) noexcept
{
    if (FAULT(FAULT_MALLOC) || allocationFails())
        return nullptr;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept
{
    if (FAULT(FAULT_CALLOC) || allocationFails())
        return nullptr;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept
{
    if (allocationFails())
        return nullptr;
    return __libc_realloc(memory, size);
}

/// json-c goes on with the null pointer when it lacks the memory for a member's name, and ends the process: a fault of
/// its own, which is not tried.
char* strdup(const char* text) noexcept
{
    Dl_info object{};
    gSpared = control() && dladdr(__builtin_return_address(0), &object) != 0 && strstr(object.dli_fname, "json-c");
    char* copy = NEXT(strdup)(text);
    gSpared = false;
    return copy;
}
#endif

char* blobmsg_format_json_with_cb(blob_attr* data, bool list, blobmsg_json_format_t format, void* argument, int indent)
{
    return FAULT(FAULT_FORMAT_JSON) ? nullptr : NEXT(blobmsg_format_json_with_cb)(data, list, format, argument, indent);
}

ubus_context* ubus_connect(const char* path)
{
    return FAULT(FAULT_UBUS_CONNECT, path ? path : "default") ? nullptr : NEXT(ubus_connect)(path);
}

int ubus_reconnect(ubus_context* connection, const char* path)
{
    const int error = FAULT(FAULT_UBUS_RECONNECT);
    return error ? error : NEXT(ubus_reconnect)(connection, path);
}

int ubus_add_object(ubus_context* connection, ubus_object* object)
{
    const int error = FAULT(FAULT_UBUS_ADD_OBJECT);
    return error ? error : NEXT(ubus_add_object)(connection, object);
}

int ubus_lookup_id(ubus_context* connection, const char* path, uint32_t* id)
{
    const int error = FAULT(FAULT_UBUS_LOOKUP_ID, path);
    return error ? error : NEXT(ubus_lookup_id)(connection, path, id);
}

// What ubus_invoke_async, which is inline, comes to.
int ubus_invoke_async_fd(ubus_context* connection, uint32_t object, const char* method, blob_attr* message,
                         ubus_request* request, int fd)
{
    const int error = FAULT(FAULT_UBUS_INVOKE_ASYNC, method);
    return error ? error : NEXT(ubus_invoke_async_fd)(connection, object, method, message, request, fd);
}

int ubus_send_reply(ubus_context* connection, ubus_request_data* request, blob_attr* message)
{
    const int error = FAULT(FAULT_UBUS_SEND_REPLY);
    return error ? error : NEXT(ubus_send_reply)(connection, request, message);
}

uci_context* uci_alloc_context()
{
    return FAULT(FAULT_UCI_ALLOC_CONTEXT) ? nullptr : NEXT(uci_alloc_context)();
}

int uci_load(uci_context* context, const char* name, uci_package** package)
{
    const int error = FAULT(FAULT_UCI_LOAD, name);
    return error ? error : NEXT(uci_load)(context, name, package);
}

int uci_save(uci_context* context, uci_package* package)
{
    const int error = FAULT(FAULT_UCI_SAVE, package->e.name);
    return error ? error : NEXT(uci_save)(context, package);
}

int uci_commit(uci_context* context, uci_package** package, bool overwrite)
{
    const int error = FAULT(FAULT_UCI_COMMIT, (*package)->e.name);
    return error ? error : NEXT(uci_commit)(context, package, overwrite);
}

int uci_set(uci_context* context, uci_ptr* pointer)
{
    const int error = FAULT(FAULT_UCI_SET, pointer->option ? pointer->option : pointer->section);
    return error ? error : NEXT(uci_set)(context, pointer);
}

int uci_delete(uci_context* context, uci_ptr* pointer)
{
    const int error = FAULT(FAULT_UCI_DELETE, pointer->section);
    return error ? error : NEXT(uci_delete)(context, pointer);
}

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(arguments, unsigned)) : 0;
    va_end(arguments);
    const int error = control() ? openFault(path, flags) : 0;
    return error ? failed(error) : NEXT(open)(path, flags, mode);
}

int mkstemp(char* path)
{
    const int error = control() ? faultAt(FAULT_CREATE, path) : 0;
    return error ? failed(error) : NEXT(mkstemp)(path);
}

ssize_t write(int fd, const void* data, size_t size)
{
    const int error = control() ? faultAt(FAULT_WRITE, PathOf(fd).text) : 0;
    return error ? failed(error) : NEXT(write)(fd, data, size);
}

int fsync(int fd)
{
    const int error = control() ? faultAt(FAULT_FSYNC, PathOf(fd).tail(fd)) : 0;
    return error ? failed(error) : NEXT(fsync)(fd);
}

int ftruncate(int fd, off_t size) noexcept
{
    const int error = control() ? faultAt(FAULT_FTRUNCATE, PathOf(fd).tail(fd)) : 0;
    return error ? failed(error) : NEXT(ftruncate)(fd, size);
}

int rename(const char* from, const char* to) noexcept
{
    const int error = control() ? faultAt(FAULT_RENAME, to) : 0;
    return error ? failed(error) : NEXT(rename)(from, to);
}

} // extern "C"
