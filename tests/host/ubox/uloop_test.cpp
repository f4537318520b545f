#include "ubox_test.h"

#include <fcntl.h>

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

} // namespace

TEST(Uloop, RunsTimeoutsInTheirOrderAndLeavesRoomForDescriptors)
{
    ASSERT_EQ(uloop_init(), 0);
    std::string order;
    Timeout cancelled([&] { order += "?"; });
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
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), -1);
    uloop_timeout_set(&cancelled, 0);
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), 0);
    uloop_timeout_set(&last, 0);
    uloop_timeout_set(&last, 30); // in the place of the first time
    uloop_timeout_set(&c, 15);
    uloop_timeout_set(&b, -5);
    a.time = b.time; // armed later for the same instant
    EXPECT_EQ(uloop_timeout_add(&a), 0);
    EXPECT_EQ(uloop_timeout_add(&a), -1);
    const auto start = steady_clock::now();
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(order, "bazce");
    EXPECT_GE(steady_clock::now() - start, milliseconds(29));

    // One that always arms itself for now leaves room for descriptors. A hang-up ends the registration.
    again.run = [&] { uloop_timeout_set(&again, 0); };
    uloop_timeout_set(&again, 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    uloop_fd socket{};
    socket.fd = ends[0];
    for (const bool closed : {false, true}) {
        socket.cb = [](uloop_fd*, unsigned) { uloop_end(); };
        EXPECT_EQ(uloop_fd_add(&socket, ULOOP_READ), 0);
        EXPECT_TRUE(fcntl(socket.fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(closed ? close(ends[1]) : write(ends[1], "x", 1), closed ? 0 : 1);
        EXPECT_EQ(uloop_run(), 0);
        EXPECT_TRUE(socket.registered != closed && socket.error == closed && socket.eof == closed);
        char byte = 0;
        EXPECT_EQ(read(socket.fd, &byte, 1), closed ? 0 : 1);
    }
    close(socket.fd);
    uloop_done();
    EXPECT_EQ(signal(SIGTERM, SIG_DFL), SIG_DFL) << "what the loop had put in its place is gone";
}
