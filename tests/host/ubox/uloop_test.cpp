#include "ubox_test.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(Uloop, RunsTimeoutsInTheirOrderAndLeavesRoomForDescriptors)
{
    ASSERT_EQ(uloop_init(), 0);
    static uloop_timeout timeouts[5];
    static std::string order;
    for (uloop_timeout& timeout : timeouts)
        timeout.cb = [](uloop_timeout* self) { order += static_cast<char>('a' + (self - timeouts)); };
    auto& [a, b, c, cancelled, last] = timeouts;
    last.cb = [](uloop_timeout*) { uloop_end(); };
    uloop_timeout_set(&cancelled, 0);
    EXPECT_EQ(uloop_timeout_cancel(&cancelled), 0);
    uloop_timeout_set(&last, 0);
    uloop_timeout_set(&last, 30); // in the place of the first time
    uloop_timeout_set(&c, 15);
    uloop_timeout_set(&b, -5);
    a.time = b.time; // armed later for the same instant
    EXPECT_EQ(uloop_timeout_add(&a), 0);
    const auto start = steady_clock::now();
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(order, "bac");
    EXPECT_GE(steady_clock::now() - start, milliseconds(29));

    // One that always arms itself for now leaves room for descriptors. A hang-up ends the registration.
    last.cb = [](uloop_timeout* self) { uloop_timeout_set(self, 0); };
    uloop_timeout_set(&last, 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const Peer near(ends[0]);
    Peer far(ends[1]);
    uloop_fd socket{};
    socket.fd = near.fd();
    socket.cb = [](uloop_fd*, unsigned) { uloop_end(); };
    for (const bool closed : {false, true}) {
        EXPECT_EQ(uloop_fd_add(&socket, ULOOP_READ), 0);
        closed ? void(far = Peer()) : far.send({1});
        EXPECT_EQ(uloop_run(), 0);
        EXPECT_TRUE(socket.registered != closed && socket.error == closed && socket.eof == closed);
    }
    uloop_done();
    EXPECT_EQ(signal(SIGTERM, SIG_DFL), SIG_DFL) << "what the loop had put in its place is gone";
}
