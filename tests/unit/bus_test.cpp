// Calls, answers and worker threads where a library or the system fails.

#include "head.h"
#include "ubus/bus_adapter.h"
#include "ubus/ubus_state.h"

#include <errno.h>

#pragma GCC diagnostic ignored "-Wmissing-declarations"

// The daemon's own, under other names than the rig's fakes.
int32_t realWorkerStart(void* (*routine)(void*), void* argument);
bool realWorkersStop(int32_t timeoutMs);

static bool noThreads;

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

/// The answer for an object that is hidden from its caller.
int __wrap_ubus_lookup_id(ubus_context*, const char*, uint32_t*)
{
    return UBUS_STATUS_OK;
}

int __wrap_pthread_create(pthread_t* out, const pthread_attr_t* attr, void* (*routine)(void*), void* argument)
{
    return noThreads ? EAGAIN : __real_pthread_create(out, attr, routine, argument);
}

} // extern "C"

namespace {

class Bus : public Head {};

TEST_F(Bus, AHiddenObjectIsNotFound)
{
    uint32_t id = 7;
    const BusGuard hold;
    EXPECT_EQ(busLookupId(nullptr, "CET", id), UBUS_STATUS_NOT_FOUND);
}

TEST_F(Bus, AnAnswerThatMemoryDoesNotHoldIsAFailure)
{
    for (int i = 0; i < PRESET_COUNT; ++i)
        EXPECT_EQ(rig::call("setPreset", R"({"name":"a name that takes some room"})"), RESULT_OK);
    gContext.ubus.replyBuf.grow = [](blob_buf*, int) { return false; };
    EXPECT_EQ(call("getPresetAll"), code(ERR_DEVICE));
    EXPECT_EQ(call("getPresetPage", R"({"start_id":"0","count":"8"})"), code(ERR_DEVICE));
}

TEST_F(Bus, ArgumentsNest64DeepAtMost)
{
    for (const auto& [depth, answer] : {std::pair{64, RESULT_OK}, {65, ERR_PARAM}}) {
        blob_buf message{};
        blob_buf_init(&message, 0);
        std::vector<void*> open;
        while (std::ssize(open) < depth)
            open.push_back(blobmsg_open_array(&message, open.empty() ? "id" : nullptr));
        blobmsg_add_string(&message, nullptr, "3");
        for (; !open.empty(); open.pop_back())
            blobmsg_close_array(&message, open.back());
        const auto* data = static_cast<const uint8_t*>(blob_data(message.head));
        EXPECT_EQ(rig::call("delPreset", Bytes(data, blob_len(message.head))), answer) << depth;
        blob_buf_free(&message);
    }
}

TEST_F(Bus, AThreadThatCouldNotBeStartedIsNotWaitedFor)
{
    noThreads = true;
    EXPECT_EQ(realWorkerStart([](void*) -> void* { return nullptr; }, nullptr), -1);
    noThreads = false;
    EXPECT_TRUE(realWorkersStop(0));
}

} // namespace
