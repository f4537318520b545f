// A preloaded library that makes chosen calls of the daemon fail, and counts what programs make durable. It is to come
// before the lab's own preloaded library.
//
// Calls fail in programs named ptzd only, when PTZD_FAULTS names a file that says which; it may be changed at any time.
// Calls of libraries and of the C library count when the daemon's own code makes them, so that neither the lab nor the
// libraries' insides change the numbering; calls on files count by the file's path.
//
// PTZD_SYNC_LOG names a file that gets a line "PID BYTES PATH" for each file, and each folder with 0 bytes, that any
// program syncs.

#include "fault_control.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
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

/// Whether an address lies in the program itself.
bool inProgram(const void* address)
{
    Dl_info program{};
    Dl_info caller{};
    return dladdr(reinterpret_cast<void*>(getauxval(AT_ENTRY)), &program) != 0 && dladdr(address, &caller) != 0 &&
           program.dli_fbase == caller.dli_fbase;
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
    const int32_t error = record.error.load();
    const timespec delay{0, -error * 1'000'000L};
    if (error < 0)
        syscall(SYS_nanosleep, &delay, nullptr); // the library's own sleeps in the lab's time
    record.met.fetch_add(1);
    return error < 0 ? 0 : error;
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

void noteSync(int fd)
{
    const char* log = getenv("PTZD_SYNC_LOG");
    if (!log)
        return;
    const int keep = errno;
    struct stat info {};
    const bool isFile = fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
    if (FILE* file = fopen(log, "ae")) {
        fprintf(file, "%d %lld %s\n", static_cast<int>(getpid()), isFile ? static_cast<long long>(info.st_size) : 0,
                PathOf(fd).text);
        fclose(file);
    }
    errno = keep;
}

constinit std::atomic<ubus_object*> gObject{nullptr};                        // the daemon's
constinit std::atomic<void (*)(uloop_fd*, unsigned int)> gDispatch{nullptr}; // the library's own, of each connection

#ifndef FAULTS_WITHOUT_HEAP
constinit std::atomic<bool> gStarted{false};

/// Allocations count from here on. What ran before is no work of the daemon's, and by now the lab, which comes behind
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

/// The next definition of a call, behind this library's.
#define NEXT(function)                                                                                                 \
    ([] {                                                                                                              \
        static constinit std::atomic<void*> slot{nullptr};                                                             \
        return reinterpret_cast<decltype(&::function)>(definition(slot, #function));                                   \
    }())
/// What is to happen to a call that the daemon's own code makes, or to a file, for calls that count by that.
#define OWN(call, ...) faultOf(call, __builtin_return_address(0) __VA_OPT__(, ) __VA_ARGS__)
#define ON_FILE(call, path) (control() ? faultAt(call, path) : 0)
/// Defines a call that returns `failure` where `fault` gives an `error`, and else what the next definition returns.
#define CALL(result, name, parameters, arguments, fault, failure)                                                      \
    result name parameters                                                                                             \
    {                                                                                                                  \
        const int error = fault;                                                                                       \
        return error ? failure : NEXT(name) arguments;                                                                 \
    }

extern "C" {

CALL(int, pipe2, (int ends[2], int flags) noexcept, (ends, flags), OWN(FAULT_PIPE2), failed(error))
CALL(int, timer_create, (clockid_t clock, sigevent* event, timer_t* id) noexcept, (clock, event, id),
     OWN(FAULT_TIMER_CREATE), failed(error))
CALL(int, timer_settime, (timer_t id, int flags, const itimerspec* value, itimerspec* old) noexcept,
     (id, flags, value, old), OWN(FAULT_TIMER_SETTIME), failed(error))

#ifdef FAULTS_WITH_SANITIZERS_THREAD
// ThreadSanitizer starts a thread of its own with the program's first one, and without attributes.
#define THREAD_FAULT (attributes ? OWN(FAULT_PTHREAD_CREATE) : 0)
#else
#define THREAD_FAULT OWN(FAULT_PTHREAD_CREATE)
#endif
CALL(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) noexcept,
     (thread, attributes, routine, argument), THREAD_FAULT, error)

// The heap of a sanitizer is in the program and cannot be preloaded.
#ifndef FAULTS_WITHOUT_HEAP
void* malloc(size_t size) noexcept
{
    return OWN(FAULT_MALLOC) || allocationFails() ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept
{
    return OWN(FAULT_CALLOC) || allocationFails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept
{
    return allocationFails() ? nullptr : __libc_realloc(memory, size);
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

CALL(char*, blobmsg_format_json_with_cb,
     (blob_attr * data, bool list, blobmsg_json_format_t format, void* argument, int indent),
     (data, list, format, argument, indent), OWN(FAULT_FORMAT_JSON), nullptr)
CALL(int, ubus_lookup_id, (ubus_context * connection, const char* path, uint32_t* id), (connection, path, id),
     OWN(FAULT_UBUS_LOOKUP_ID, path), error)
// What ubus_invoke_async, which is inline, comes to.
CALL(int, ubus_invoke_async_fd,
     (ubus_context * connection, uint32_t object, const char* method, blob_attr* message, ubus_request* request,
      int fd),
     (connection, object, method, message, request, fd), OWN(FAULT_UBUS_INVOKE_ASYNC, method), error)
CALL(int, ubus_send_reply, (ubus_context * connection, ubus_request_data* request, blob_attr* message),
     (connection, request, message), OWN(FAULT_UBUS_SEND_REPLY), error)

ubus_context* ubus_connect(const char* path)
{
    ubus_context* connection = OWN(FAULT_UBUS_CONNECT, path ? path : "default") ? nullptr : NEXT(ubus_connect)(path);
    if (connection)
        gDispatch.store(connection->sock.cb);
    return connection;
}

int ubus_add_object(ubus_context* connection, ubus_object* object)
{
    gObject.store(object);
    const int error = OWN(FAULT_UBUS_ADD_OBJECT);
    return error ? error : NEXT(ubus_add_object)(connection, object);
}

int ubus_reconnect(ubus_context* connection, const char* path)
{
    const int error = OWN(FAULT_UBUS_RECONNECT);
    const int status = error ? error : NEXT(ubus_reconnect)(connection, path);
    if (status == 0 && OWN(FAULT_UBUS_RECONNECT_OBJECT) != 0) {
        ubus_remove_object(connection, gObject.load());
        connection->sock.cb = gDispatch.load(); // a library may set up the socket anew
    }
    return status;
}

CALL(uci_context*, uci_alloc_context, (), (), OWN(FAULT_UCI_ALLOC_CONTEXT), nullptr)
CALL(int, uci_load, (uci_context * context, const char* name, uci_package** package), (context, name, package),
     OWN(FAULT_UCI_LOAD, name), error)
CALL(int, uci_save, (uci_context * context, uci_package* package), (context, package),
     OWN(FAULT_UCI_SAVE, package->e.name), error)
CALL(int, uci_commit, (uci_context * context, uci_package** package, bool overwrite), (context, package, overwrite),
     OWN(FAULT_UCI_COMMIT, (*package)->e.name), error)
CALL(int, uci_set, (uci_context * context, uci_ptr* pointer), (context, pointer),
     OWN(FAULT_UCI_SET, pointer->option ? pointer->option : pointer->section), error)
CALL(int, uci_delete, (uci_context * context, uci_ptr* pointer), (context, pointer),
     OWN(FAULT_UCI_DELETE, pointer->section), error)

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(arguments, unsigned)) : 0;
    va_end(arguments);
    const int error = control() ? openFault(path, flags) : 0;
    return error ? failed(error) : NEXT(open)(path, flags, mode);
}

CALL(int, mkostemp, (char* path, int flags), (path, flags), ON_FILE(FAULT_CREATE, path), failed(error))
CALL(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), ON_FILE(FAULT_WRITE, PathOf(fd).text),
     failed(error))
CALL(int, ftruncate, (int fd, off_t size) noexcept, (fd, size), ON_FILE(FAULT_FTRUNCATE, PathOf(fd).tail(fd)),
     failed(error))
CALL(int, fsync, (int fd), (fd), (noteSync(fd), ON_FILE(FAULT_FSYNC, PathOf(fd).tail(fd))), failed(error))
CALL(int, fdatasync, (int fd), (fd), (noteSync(fd), 0), failed(error))

} // extern "C"
