#include "motion/displacement.h"

#include "motor/coordinates.h"
#include "motor/motion_state.h"

ResultCode displacementSteps(const Displacement& by, const HeadStatus& head, int32_t (&steps)[AXIS_COUNT])
{
    steps[PAN] = relativeSteps(PAN, by.pan, head[PAN].position);
    steps[TILT] = relativeSteps(TILT, by.tilt, head[TILT].position);
    if ((by.pan != 0 && steps[PAN] == 0) || (by.tilt != 0 && steps[TILT] == 0))
        return ERR_NO_TRAVEL;
    return RESULT_OK;
}

MotionTarget targetOf(const HeadStatus& head, const Displacement& by)
{
    return {MotionTarget::Kind::Place,
            {displaced(PAN, by.pan, head[PAN].position), displaced(TILT, by.tilt, head[TILT].position)}};
}

ResultCode takeOverForDisplacement(const Displacement& by, HeadStatus& head, int32_t (&steps)[AXIS_COUNT])
{
    if (const ResultCode result = motorReadStatus(head); result != RESULT_OK)
        return result;
    if (const ResultCode result = displacementSteps(by, head, steps); result != RESULT_OK)
        return result;
    return motionHaltIfRunning(head);
}
