// What only our library does: ends the loop from other threads at once, and takes any input.

#include <atomic>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "process.h"
#include "ubox_test.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(OwnUloop, AnotherThreadWakesAndEndsASleepingLoop)
{
    ASSERT_EQ(uloop_init(), 0);
    uloop_end(); // asked for before the start: forgotten
    auto start = steady_clock::now();
    auto before = processorTime();
    std::thread other([] {
        std::this_thread::sleep_for(milliseconds(100));
        uloop_end();
    });
    EXPECT_EQ(uloop_run(), 0);
    other.join();
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    EXPECT_LT(processorTime() - before, milliseconds(80)); // asleep, not spinning
    uloop_done();
}

TEST(OwnUloop, EndMayRaceWithDone)
{
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop)
            uloop_end();
    });
    for (int round = 0; round < 200; ++round) {
        uloop_done();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0); // takes the numbers just closed
        uloop_init();
        char byte = 0;
        for (const int fd : pair) {
            EXPECT_LT(recv(fd, &byte, 1, MSG_DONTWAIT), 1);
            close(fd);
        }
    }
    stop = true;
    other.join();
    uloop_done();
}

TEST(BlobmsgJson, MalformedAttributesPrintNothingAndOthersStay)
{
    HeapCopy broken(bytesFromHex("8500000a00016e0000050000"));
    EXPECT_EQ(takeText(blobmsg_format_json(broken.attr(), false)), "");
    EXPECT_EQ(takeText(blobmsg_format_json_value(broken.attr())), "");
    // An INT32 of 2 bytes between two sound ones, then an attribute longer than the rest.
    HeapCopy head(bytesFromHex("00000030"
                               "8500000c0001610000000001"
                               "8500000a0001620000050000"
                               "8500000c0001630000000003"
                               "850000ff00016400"));
    EXPECT_EQ(takeText(blobmsg_format_json(head.attr(), true)), R"({"a":1,"c":3})");
}

TEST(BlobmsgJson, FollowsAnyDepthWithoutTheStack)
{
    constexpr size_t DEPTH = 100000;
    Bytes bytes;
    for (size_t level = 0; level < DEPTH; ++level) {
        size_t length = 8 * (DEPTH - level);
        bytes.insert(bytes.end(), {0x81, static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 8),
                                   static_cast<uint8_t>(length), 0, 0, 0, 0});
    }
    HeapCopy copy(bytes);
    EXPECT_EQ(takeText(blobmsg_format_json(copy.attr(), false)), std::string(1001, '[') + std::string(1001, ']'));
}
