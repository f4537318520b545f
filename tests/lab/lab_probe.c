/* A program for the lab's tests: it uses motors, timers, files and time as the daemon does, one command a line from
 * standard input, one line of answer on standard output. Failures answer "errno N". */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { WORDS = 5, TIMERS = 4 };

static const unsigned long requests[] = {0x8014DE00, 0x4014DE01, 0x8014DE02, 0x4014DE03,
                                         0x4014DE04, 0x4014DE05, 0x0000DE06};
enum { GET_CAPA, SET_POSITION, GET_STATUS, SET_SPEED, ROTATE, MOVE, STOP };

struct timer_record {
    timer_t id;
    int slow_ms; /* how long the callback takes, in real time */
    pthread_mutex_t lock;
    int started;
    int running;
    int most;  /* callbacks seen running at a time */
    int plain; /* written by whoever arms, read by callbacks, without a lock: the hand-over must order it */
    int seen;
};

static int motors[2] = {-1, -1};
static struct timer_record timers[TIMERS];
static pthread_t background;
static int background_axis, background_steps;
static char background_result[64];

static void answer(const char* format, ...) __attribute__((format(printf, 1, 2)));

static void answer(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

static void answer_result(int result)
{
    if (result < 0)
        answer("errno %d", errno);
    else
        answer("%d", result);
}

static long long monotonic_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

/* A wait on a descriptor is real time, whatever the lab's clock does. */
static void real_sleep_ms(int ms)
{
    struct timespec limit = {ms / 1000, ms % 1000 * 1000000L};
    sigset_t none;
    sigemptyset(&none);
    sigaddset(&none, SIGUSR2);
    sigtimedwait(&none, NULL, &limit);
}

static int motor_request(int axis, int request, int speed, int steps)
{
    int32_t words[WORDS] = {0, speed, steps, 0, 0};
    return ioctl(motors[axis], requests[request], request == STOP ? NULL : words);
}

static void report(int axis, int request)
{
    int32_t words[WORDS] = {0};
    if (ioctl(motors[axis], requests[request], words) != 0)
        answer("errno %d", errno);
    else
        answer("%d %d %d %d %d", words[0], words[1], words[2], words[3], words[4]);
}

static void* rotate_in_background(void* unused)
{
    (void)unused;
    const int result = motor_request(background_axis, ROTATE, 0, background_steps);
    snprintf(background_result, sizeof(background_result), "%s %d", result == 0 ? "done" : "errno",
             result == 0 ? 0 : errno);
    return NULL;
}

static void on_timer(union sigval value)
{
    struct timer_record* timer = value.sival_ptr;
    const int plain = timer->plain;
    pthread_mutex_lock(&timer->lock);
    timer->seen = plain;
    ++timer->started;
    if (++timer->running > timer->most)
        timer->most = timer->running;
    pthread_mutex_unlock(&timer->lock);
    if (timer->slow_ms > 0)
        real_sleep_ms(timer->slow_ms);
    pthread_mutex_lock(&timer->lock);
    --timer->running;
    pthread_mutex_unlock(&timer->lock);
}

static void motor_command(const char* verb, int axis, const char* rest)
{
    int a = 0, b = 0;
    char path[16];
    sscanf(rest, "%d %d", &a, &b);
    if (strcmp(verb, "open") == 0) {
        snprintf(path, sizeof(path), "/dev/%c-motor", axis == 0 ? 'x' : 'y');
        motors[axis] = open(path, O_RDONLY | O_CLOEXEC);
        answer_result(motors[axis] < 0 ? -1 : fcntl(motors[axis], F_GETFD));
    } else if (strcmp(verb, "capa") == 0) {
        report(axis, GET_CAPA);
    } else if (strcmp(verb, "status") == 0) {
        report(axis, GET_STATUS);
    } else if (strcmp(verb, "setpos") == 0) {
        answer_result(motor_request(axis, SET_POSITION, 0, a));
    } else if (strcmp(verb, "speed") == 0) {
        answer_result(motor_request(axis, SET_SPEED, a, 0));
    } else if (strcmp(verb, "rotate") == 0) {
        const long long start = monotonic_us();
        const int result = motor_request(axis, ROTATE, 0, a);
        if (result < 0)
            answer("errno %d", errno);
        else
            answer("%lld", monotonic_us() - start);
    } else if (strcmp(verb, "rotate-behind") == 0) {
        background_axis = axis;
        background_steps = a;
        answer_result(pthread_create(&background, NULL, rotate_in_background, NULL));
    } else if (strcmp(verb, "move") == 0) {
        answer_result(motor_request(axis, MOVE, a, b));
    } else if (strcmp(verb, "stop") == 0) {
        answer_result(motor_request(axis, STOP, 0, 0));
    } else if (strcmp(verb, "nothing") == 0) {
        answer_result(ioctl(motors[axis], 0x4014DE04, NULL));
    }
}

static void timer_command(const char* verb, struct timer_record* timer, const char* rest)
{
    long a = 0, b = 0;
    struct itimerspec value = {0};
    sscanf(rest, "%ld %ld", &a, &b);
    if (strcmp(verb, "timer") == 0) {
        struct sigevent event = {0};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_notify_function = on_timer;
        event.sigev_value.sival_ptr = timer;
        timer->slow_ms = (int)a;
        pthread_mutex_init(&timer->lock, NULL);
        answer_result(timer_create(CLOCK_REALTIME, &event, &timer->id));
    } else if (strcmp(verb, "arm") == 0) { /* first and interval, in ms */
        value.it_value = (struct timespec){a / 1000, a % 1000 * 1000000};
        value.it_interval = (struct timespec){b / 1000, b % 1000 * 1000000};
        pthread_mutex_lock(&timer->lock);
        const int untouched = timer->started == 0;
        pthread_mutex_unlock(&timer->lock);
        if (untouched)
            ++timer->plain; /* no callback has run that could look at it */
        answer_result(timer_settime(timer->id, 0, &value, NULL));
    } else if (strcmp(verb, "left") == 0) {
        if (timer_gettime(timer->id, &value) != 0)
            answer("errno %d", errno);
        else
            answer("%ld", value.it_value.tv_sec * 1000 + value.it_value.tv_nsec / 1000000);
    } else if (strcmp(verb, "fired") == 0) {
        pthread_mutex_lock(&timer->lock);
        answer("%d %d %d", timer->started, timer->most, timer->seen);
        pthread_mutex_unlock(&timer->lock);
    } else if (strcmp(verb, "delete") == 0) {
        answer_result(timer_delete(timer->id));
    }
}

static void time_command(const char* verb, long number)
{
    struct timespec now;
    struct timeval day;
    char text[32];
    const long long start = monotonic_us();
    if (strcmp(verb, "sleep") == 0) { /* ms by nanosleep; answers how long it took in real us */
        nanosleep(&(struct timespec){number / 1000, number % 1000 * 1000000}, NULL);
        answer("%lld", monotonic_us() - start);
    } else if (strcmp(verb, "usleep") == 0) {
        usleep((useconds_t)number * 1000);
        answer("%lld", monotonic_us() - start);
    } else if (strcmp(verb, "sleep-s") == 0) {
        sleep((unsigned)number);
        answer("%lld", monotonic_us() - start);
    } else if (strcmp(verb, "sleep-until") == 0) { /* seconds from now on the wall clock */
        clock_gettime(CLOCK_REALTIME, &now);
        now.tv_sec += number;
        clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &now, NULL);
        answer("%lld", monotonic_us() - start);
    } else if (strcmp(verb, "wall") == 0) { /* three ways to ask for the same second */
        struct tm parts;
        const time_t plain = time(NULL);
        clock_gettime(CLOCK_REALTIME, &now);
        gettimeofday(&day, NULL);
        localtime_r(&plain, &parts);
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
        answer("%s %ld %ld", text, (long)(now.tv_sec - plain), (long)(day.tv_sec - plain));
    }
}

static void socket_command(const char* verb, const char* path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    struct ucred peer = {0};
    socklen_t length = sizeof(peer);
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (strcmp(verb, "bind") == 0) { /* stays bound for as long as the probe lives */
        answer_result(bind(fd, (struct sockaddr*)&address, sizeof(address)) == 0 ? listen(fd, 4) : -1);
        return;
    }
    if (connect(fd, (struct sockaddr*)&address, sizeof(address)) != 0)
        answer("errno %d", errno);
    else
        answer("%s %d", getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? "user" : "error", peer.uid);
    close(fd);
}

static void file_command(const char* verb, const char* path, const char* other)
{
    char text[PATH_MAX];
    struct stat info;
    if (strcmp(verb, "write") == 0) {
        FILE* file = fopen(path, "w");
        answer_result(file && fputs(other, file) >= 0 && fclose(file) == 0 ? 0 : -1);
    } else if (strcmp(verb, "read") == 0) {
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        const ssize_t got = fd < 0 ? -1 : read(fd, text, sizeof(text) - 1);
        if (got < 0)
            answer("errno %d", errno);
        else
            answer("%.*s", (int)got, text);
        if (fd >= 0)
            close(fd);
    } else if (strcmp(verb, "stat") == 0) {
        const int plain = stat(path, &info);
        answer("%d %d %d", plain, lstat(path, &info), access(path, R_OK));
    } else if (strcmp(verb, "mkdir") == 0) {
        answer_result(mkdir(path, 0755));
    } else if (strcmp(verb, "rename") == 0) {
        answer_result(rename(path, other));
    } else if (strcmp(verb, "unlink") == 0) {
        answer_result(unlink(path));
    } else if (strcmp(verb, "mkstemp") == 0) {
        snprintf(text, sizeof(text), "%s", path);
        const int fd = mkstemp(text);
        if (fd < 0)
            answer("errno %d", errno);
        else
            answer("%s", text);
        close(fd);
    } else if (strcmp(verb, "glob") == 0) {
        glob_t found;
        if (glob(path, 0, NULL, &found) != 0) {
            answer("none");
            return;
        }
        answer("%zu %s", found.gl_pathc, found.gl_pathv[0]);
        globfree(&found);
    } else if (strcmp(verb, "realpath") == 0) {
        if (realpath(path, text))
            answer("%s", text);
        else
            answer("errno %d", errno);
    }
}

/* Puts a file of that name at a number, past the C library on request. */
static int put_file(const char* path, int number, int raw)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const long result = raw ? syscall(SYS_dup3, fd, number, O_CLOEXEC) : dup2(fd, number);
    close(fd);
    return (int)result;
}

static atomic_int storm_blows;
static const char* storm_path;

static void* storm_over_numbers(void* unused)
{
    (void)unused;
    while (storm_blows) {
        for (int number = 200; number < 204; ++number)
            put_file(storm_path, number, 0);
        close_range(202, 203, 0);
        close(200);
        close(201);
    }
    return NULL;
}

static void descriptor_command(const char* verb, int number, const char* path)
{
    int32_t words[WORDS];
    if (strcmp(verb, "close") == 0) {
        answer_result(close(number));
    } else if (strcmp(verb, "close-range") == 0) {
        answer_result(close_range((unsigned)number, ~0u, 0));
    } else if (strcmp(verb, "closefrom") == 0) {
        closefrom(number);
        answer("0");
    } else if (strcmp(verb, "put") == 0) {
        answer_result(put_file(path, number, 0));
    } else if (strcmp(verb, "put-raw") == 0) {
        answer_result(put_file(path, number, 1));
    } else if (strcmp(verb, "fork") == 0) { /* so many children ask one after the other, then their parent */
        for (int i = 0; i < number; ++i) {
            const pid_t child = fork();
            if (child == 0)
                _exit(ioctl(motors[0], requests[GET_STATUS], words) != 0);
            waitpid(child, NULL, 0);
        }
        answer_result(ioctl(motors[0], requests[GET_STATUS], words));
    } else if (strcmp(verb, "storm") == 0) { /* so many requests while files come and go at high numbers */
        storm_path = path;
        storm_blows = 1;
        pthread_create(&background, NULL, storm_over_numbers, NULL);
        int served = 0;
        for (int i = 0; i < number; ++i)
            served += ioctl(motors[0], requests[GET_STATUS], words) == 0;
        storm_blows = 0;
        pthread_join(background, NULL);
        answer("%d", served);
    } else {
        time_command(verb, number);
    }
}

int main(void)
{
    char line[2 * PATH_MAX], verb[32], first[PATH_MAX], rest[PATH_MAX];
    while (fgets(line, sizeof(line), stdin)) {
        verb[0] = first[0] = rest[0] = '\0';
        sscanf(line, "%31s %4095s %4095[^\n]", verb, first, rest);
        if (strcmp(verb, "join") == 0) {
            pthread_join(background, NULL);
            answer("%s", background_result);
        } else if (strcmp(first, "x") == 0 || strcmp(first, "y") == 0) {
            motor_command(verb, first[0] - 'x', rest);
        } else if (first[0] == '#') { /* a timer: #0 to #3 */
            timer_command(verb, &timers[(first[1] - '0') % TIMERS], rest);
        } else if (strcmp(verb, "bind") == 0 || strcmp(verb, "connect") == 0) {
            socket_command(verb, first);
        } else if (first[0] == '/') {
            file_command(verb, first, rest);
        } else {
            descriptor_command(verb, (int)strtol(first, NULL, 10), rest);
        }
    }
    return 0;
}
