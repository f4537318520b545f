#include "motor/rotation_test.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/worker.h"
#include "motor/motor_device.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <initializer_list>
#include <iterator>

namespace {

constexpr blobmsg_policy testPolicy[] = {{"times", BLOBMSG_TYPE_STRING}};

/// There and back over both axes' whole travel.
bool swingOnce()
{
    for (const AxisIndex axis : {PAN, TILT}) {
        const int32_t travel = gContext.axes[axis].total_steps;
        if (motorRotate(axis, -travel) != RESULT_OK || motorRotate(axis, travel) != RESULT_OK)
            return false;
    }
    return true;
}

void* motorTest(void* argument)
{
    const WorkerScope scope(WorkerEntry::Adopt);
    const Owned<int> times(static_cast<int*>(argument));
    if (!scope.entered())
        return nullptr;
    LOG_TRACE("start test rotate times %d\n", *times);
    for (int pass = 0; pass < *times && !workersStopping(); ++pass) {
        if (!swingOnce()) {
            LOG_ERROR("times %d test fail\n", pass);
            return nullptr;
        }
    }
    LOG_TRACE("end test rotate.\n");
    return nullptr;
}

} // namespace

void ubusTestMotorRotate(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[std::size(testPolicy)];
    parseArgs(testPolicy, args, call);
    if (!args[0])
        return refuseParameter(call);
    Owned<int> times(static_cast<int*>(malloc(sizeof(int))));
    if (!times) {
        LOG_ERROR("test failed\n");
        return replyCode(call, ERR_PARAM);
    }
    *times = decimalArg(args[0]);
    LOG_TRACE("UBUS: test times %d\n", *times);
    if (workerStart(motorTest, times.get()) != 0) {
        LOG_ERROR("test failed\n");
        return replyCode(call, ERR_PARAM);
    }
    (void)times.release(); // the thread's from here on
    replyCode(call, RESULT_OK);
}
