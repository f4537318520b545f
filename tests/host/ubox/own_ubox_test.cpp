// What only our library does: ends the loop from other threads at once, and prints any input.
#include "ubox_test.h"

TEST(OwnUloop, AnotherThreadWakesAndEndsASleepingLoop)
{
    ASSERT_EQ(uloop_init(), 0);
    uloop_end(); // asked for before the start: forgotten
    const auto start = std::chrono::steady_clock::now();
    std::thread other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        uloop_end();
    });
    EXPECT_EQ(uloop_run(), 0);
    other.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    uloop_done();
}

TEST(BlobmsgJson, LeavesOutWhatIsMalformedOrNestedWithoutEnd)
{
    // An INT32 of 2 bytes between two sound ones, then an attribute longer than the rest.
    Bytes head = bytesFromHex("00000030"
                              "8500000c0001610000000001"
                              "8500000a0001620000050000"
                              "8500000c0001630000000003"
                              "850000ff00016400");
    EXPECT_EQ(jsonOf(attrOf(head)), R"({"a":1,"c":3})");
    constexpr size_t DEPTH = 100000, PRINTED = 1001;
    Bytes deep;
    for (size_t level = 0; level < DEPTH; ++level)
        deep = std::move(deep) + u32(0x81000000 | static_cast<uint32_t>(8 * (DEPTH - level))) + u32(0);
    EXPECT_EQ(takeText(blobmsg_format_json(attrOf(deep), false)),
              std::string(PRINTED, '[') + std::string(PRINTED, ']'));
}
