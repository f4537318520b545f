// A server on the daemon's own bus code: its object answers while two other threads notify without pause. It takes the
// daemon's place in a lab, so that bus_lock_test.cpp can tell what its callers feel of the notifications.

#include "core/worker.h"
#include "ubus/bus_adapter.h"
#include "ubus/method_reply.h"
#include "ubus/notify.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace {

constexpr useconds_t PAUSE_US = 1000; // without it the measurement is one of the processor's load

std::atomic<bool> notifying{false};
std::atomic<int32_t> sent{0};

void* notifyUnderTheStateLock(void*)
{
    for (;;) {
        if (notifying.load()) {
            LockGuard hold(gContext.motion.MotionStateLock);
            motorNotifyState(sent.fetch_add(1) % 2, ORIGIN_TRACK);
        }
        usleep(PAUSE_US);
    }
}

void* sendEvents(void*)
{
    for (;;) {
        if (notifying.load()) {
            (void)ubus_send_alarm_event("start");
            sent.fetch_add(1);
        }
        usleep(PAUSE_US);
    }
}

void answer(const Call& call)
{
    replyCode(call, RESULT_OK);
}

void switchNotifying(const Call& call)
{
    notifying.store(!notifying.load());
    replyCode(call, sent.load());
}

ubus_method methods[2];
ubus_object_type type;
ubus_object object;

void fillObject()
{
    methods[0].name = "getStatus";
    methods[0].handler = served<answer>;
    methods[1].name = "switchNotifying";
    methods[1].handler = served<switchNotifying>;
    type.name = "server";
    type.methods = methods;
    type.n_methods = 2;
    object.name = "ptzd";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 2;
}

} // namespace

int main()
{
    uloop_init();
    fillObject();
    ubus_context* connection = nullptr;
    {
        const BusGuard hold;
        connection = busConnect("/var/run/ubus.sock");
        if (!connection)
            return 1;
        busDispatchUnderLock(connection);
        if (busAddObject(connection, &object) != 0)
            return 1;
    }
    pthread_t threads[2];
    if (pthread_create(&threads[0], nullptr, notifyUnderTheStateLock, nullptr) != 0 ||
        pthread_create(&threads[1], nullptr, sendEvents, nullptr) != 0)
        return 1;
    uloop_fd_add(&connection->sock, ULOOP_READ | ULOOP_BLOCKING);
    uloop_run();
    _exit(0); // the threads run on
}
