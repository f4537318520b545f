#include <csignal>
#include <functional>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ubox_test.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A timeout whose callback is a lambda.
struct Timeout : uloop_timeout {
    explicit Timeout(std::function<void()> action) : uloop_timeout{}, run(std::move(action))
    {
        cb = [](uloop_timeout* self) { static_cast<Timeout*>(self)->run(); };
    }
    ~Timeout()
    {
        uloop_timeout_cancel(this);
    }
    std::function<void()> run;
};

// One end of a socket pair in the loop; the other end is the test's.
struct Watched : uloop_fd {
    explicit Watched(std::function<void(unsigned)> action) : uloop_fd{}, run(std::move(action))
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        fd = ends[0];
        peer = ends[1];
        cb = [](uloop_fd* self, unsigned events) { static_cast<Watched*>(self)->run(events); };
    }
    ~Watched()
    {
        uloop_fd_delete(this);
        close(fd);
        close(peer);
    }
    void send() const
    {
        EXPECT_EQ(write(peer, "x", 1), 1);
    }
    std::function<void(unsigned)> run;
    int peer;
};

class Uloop : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override
    {
        uloop_done();
    }
    static void pass()
    {
        EXPECT_EQ(uloop_run_timeout(0), 0);
    }
};

sighandler_t dispositionOf(int number)
{
    struct sigaction current {};
    sigaction(number, nullptr, &current);
    return current.sa_handler;
}

} // namespace

TEST_F(Uloop, TimeoutsRunInOrderOfTimeThenOfArming)
{
    std::string order;
    Timeout again([&] { order += "z"; });
    Timeout a([&] { order += "a"; });
    Timeout b([&] {
        EXPECT_FALSE(b.pending);
        order += "b";
        uloop_timeout_set(&again, 0);
    });
    Timeout c([&] { order += "c"; });
    Timeout last([&] {
        order += "e";
        uloop_end();
    });
    uloop_timeout_set(&last, 30);
    uloop_timeout_set(&c, 15);
    uloop_timeout_set(&b, -5);
    a.time = b.time; // armed later for the same instant
    EXPECT_EQ(uloop_timeout_add(&a), 0);
    EXPECT_EQ(uloop_timeout_add(&a), -1);
    auto start = steady_clock::now();
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(order, "bazce");
    EXPECT_GE(steady_clock::now() - start, milliseconds(29));
}

TEST_F(Uloop, TimeoutsAreRearmedAndCancelled)
{
    int runs = 0;
    Timeout timeout([&] { ++runs; });
    EXPECT_EQ(uloop_timeout_cancel(&timeout), -1);
    uloop_timeout_set(&timeout, 0);
    uloop_timeout_set(&timeout, 10000);
    pass();
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(uloop_timeout_cancel(&timeout), 0);
    uloop_timeout_set(&timeout, -10);
    pass();
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(timeout.pending);

    // One that always arms itself for now leaves room for descriptors.
    timeout.run = [&] { uloop_timeout_set(&timeout, 0); };
    Watched socket([&](unsigned) { uloop_end(); });
    uloop_fd_add(&socket, ULOOP_READ);
    uloop_timeout_set(&timeout, 0);
    socket.send();
    EXPECT_EQ(uloop_run(), 0);
}

TEST_F(Uloop, AFullCloseDeregistersBeforeItsOnlyCallbackUnlessErrorsAreWanted)
{
    const struct {
        bool full;
        unsigned flags;
        bool staysRegistered;
    } cases[] = {{false, ULOOP_READ, true}, {true, ULOOP_READ, false}, {true, ULOOP_READ | ULOOP_ERROR_CB, true}};
    for (const auto& how : cases) {
        SCOPED_TRACE(std::to_string(how.full) + " " + std::to_string(how.flags));
        int calls = 0;
        Watched socket([&](unsigned events) {
            EXPECT_EQ(events, static_cast<unsigned>(ULOOP_READ));
            EXPECT_TRUE(socket.eof);
            EXPECT_EQ(socket.error, how.full);
            EXPECT_EQ(socket.registered, how.staysRegistered);
            EXPECT_EQ(socket.flags != 0, how.staysRegistered);
            ++calls;
        });
        uloop_fd_add(&socket, how.flags);
        shutdown(socket.peer, how.full ? SHUT_RDWR : SHUT_WR);
        pass();
        pass();
        EXPECT_EQ(calls, how.staysRegistered ? 2 : 1) << "reported until it is deleted";
        if (how.full)
            continue;
        EXPECT_EQ(uloop_fd_add(&socket, ULOOP_READ), 0);
        EXPECT_FALSE(socket.eof);
        EXPECT_EQ(uloop_fd_add(&socket, ULOOP_BLOCKING), 0); // neither direction: deleted
        EXPECT_FALSE(socket.registered);
        pass();
        EXPECT_EQ(calls, 2);
    }
}

TEST_F(Uloop, FlagsChooseDirectionAndBlockingMode)
{
    unsigned seen = 0;
    Watched socket([&](unsigned events) { seen = events; });
    uloop_fd_add(&socket, ULOOP_READ | ULOOP_BLOCKING);
    EXPECT_FALSE(fcntl(socket.fd, F_GETFL) & O_NONBLOCK);
    uloop_fd_add(&socket, ULOOP_WRITE); // a change leaves the mode alone
    EXPECT_FALSE(fcntl(socket.fd, F_GETFL) & O_NONBLOCK);
    pass();
    EXPECT_EQ(seen, static_cast<unsigned>(ULOOP_WRITE));
    uloop_fd_delete(&socket);
    uloop_fd_add(&socket, ULOOP_READ);
    EXPECT_TRUE(fcntl(socket.fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(Uloop, RefusesWhatItCannotWaitFor)
{
    uloop_fd record{};
    EXPECT_EQ(uloop_fd_delete(&record), 0) << "not registered";
    for (const int fd : {-1, open("/proc/self/exe", O_RDONLY | O_CLOEXEC)}) {
        record.fd = fd;
        EXPECT_EQ(uloop_fd_add(&record, ULOOP_READ), -1);
        EXPECT_FALSE(record.registered);
    }
    close(record.fd);
    Watched socket([](unsigned) {});
    uloop_fd_add(&socket, ULOOP_READ);
    close(socket.fd);
    EXPECT_EQ(uloop_fd_delete(&socket), -1);
    socket.fd = -1;
}

TEST(UloopSignals, TerminateEndsTheLoopAndDispositionsComeBack)
{
    auto own = [](int) {};
    auto before = signal(SIGINT, own);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(dispositionOf(SIGINT), static_cast<sighandler_t>(own)); // not the default, so left alone
    EXPECT_NE(dispositionOf(SIGTERM), SIG_DFL);
    Timeout timeout([] { raise(SIGTERM); });
    uloop_timeout_set(&timeout, 10);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_TRUE(uloop_cancelled);
    uloop_done();
    uloop_done();
    EXPECT_EQ(dispositionOf(SIGTERM), SIG_DFL);
    EXPECT_EQ(dispositionOf(SIGCHLD), SIG_DFL);
    EXPECT_EQ(dispositionOf(SIGPIPE), SIG_IGN);
    signal(SIGINT, before);
}

TEST(UloopSignals, ReapsEveryChildUnlessToldNotTo)
{
    for (bool reap : {true, false}) {
        uloop_handle_sigchld = reap;
        ASSERT_EQ(uloop_init(), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(0);
        siginfo_t ended{};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
        uloop_run_timeout(0);
        EXPECT_EQ(waitpid(child, nullptr, WNOHANG), reap ? -1 : child);
        uloop_done();
    }
    uloop_handle_sigchld = true;
}
