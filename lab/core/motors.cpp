// Looking at the motors and the clock of a lab, and interfering with them.

#include "lab/lab.h"

#include "lab/clock.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>

namespace {

constexpr const char* WALL_FORMAT = "%Y-%m-%d %H:%M:%S";

} // namespace

void LabMotors::editFaults(LabAxisId axis, const std::function<void(LabFaults&)>& edit)
{
    const LabLock hold(*base_.state);
    edit(base_.state->axes[axis].faults);
    bumpAndWake(base_.state->axes[axis].wake);
}

void LabMotors::failRequest(LabAxisId axis, LabRequest request, int32_t times, int error, int32_t passes)
{
    editFaults(axis, [=](LabFaults& faults) {
        faults.requests[request].passes = passes;
        faults.requests[request].failures = times;
        faults.requests[request].error = error;
    });
}

void LabMotors::delayRequest(LabAxisId axis, LabRequest request, int32_t delayMs)
{
    editFaults(axis, [=](LabFaults& faults) { faults.requests[request].delayMs = delayMs; });
}

void LabMotors::stuckRunning(LabAxisId axis, bool stuck)
{
    editFaults(axis, [=](LabFaults& faults) { faults.stuckRunning = stuck ? 1 : 0; });
}

void LabMotors::reportCapability(LabAxisId axis, const std::optional<LabAxisSetting>& capability)
{
    editFaults(axis, [&](LabFaults& faults) {
        faults.capaReplaced = capability ? 1 : 0;
        const LabAxisSetting shown = capability.value_or(LabAxisSetting{});
        faults.capability[0] = shown.range;
        faults.capability[1] = shown.max_speed;
        faults.capability[2] = shown.total_steps;
    });
}

bool LabMotors::clearFaults(LabAxisId axis)
{
    editFaults(axis, [](LabFaults& faults) { faults = LabFaults{}; });
    return setNode(axis, true);
}

LabFaults LabMotors::faults(LabAxisId axis)
{
    const LabLock hold(*base_.state);
    return base_.state->axes[axis].faults;
}

void LabMotors::setFactor(LabAxisId axis, int32_t stepsPerSecondAndSpeed)
{
    const LabLock hold(*base_.state);
    LabAxisEdit edit(*base_.state, axis);
    setAxisFactor(*edit, edit.labNs(), stepsPerSecondAndSpeed);
    edit.commit();
}

void LabMotors::powerLoss()
{
    const int journal = openJournal(base_.folder().c_str());
    const LabLock hold(*base_.state);
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        LabAxisEdit edit(*base_.state, axis);
        losePower(*edit, edit.labNs());
        appendJournal(journal, *base_.state, axis, edit, {JOURNAL_POWER_LOSS, nullptr, 0, nullptr});
        edit.commit();
    }
    close(journal);
}

LabAxisNow LabMotors::now(LabAxisId axis)
{
    const LabLock hold(*base_.state);
    LabAxisEdit edit(*base_.state, axis);
    return axisAt(*edit, edit.labNs());
}

LabAxisSetting LabMotors::setting(LabAxisId axis)
{
    const LabLock hold(*base_.state);
    LabAxisEdit edit(*base_.state, axis);
    return {edit->range, edit->maxSpeed, edit->totalSteps};
}

uint32_t LabMotors::served(LabAxisId axis, LabRequest request) const
{
    return base_.state->axes[axis].served[request].load();
}

uint32_t LabMotors::timersCreated() const
{
    return base_.state->timersCreated.load();
}

void LabCet::setAnswer(LabCetMode mode, int32_t delayMs)
{
    base_.state->cetDelayMs.store(delayMs);
    base_.state->cetMode.store(mode);
}

LabCetMode LabCet::answer() const
{
    return static_cast<LabCetMode>(base_.state->cetMode.load());
}

void LabTime::setSpeed(double labPerReal)
{
    const LabLock hold(*base_.state);
    const auto speedMilli = static_cast<int64_t>(std::llround(labPerReal * CLOCK_SPEED_ONE));
    if (speedMilli != readClock(*base_.state).speedMilli)
        setClockSpeed(*base_.state, speedMilli);
}

bool LabTime::setWall(const std::string& localTime)
{
    tm parts{};
    const char* end = strptime(localTime.c_str(), WALL_FORMAT, &parts);
    parts.tm_isdst = -1;
    const time_t seconds = end && *end == '\0' ? mktime(&parts) : -1;
    if (seconds < 0)
        return base_.fail("not a time of the form YYYY-MM-DD HH:MM:SS: " + localTime);
    const LabLock hold(*base_.state);
    setWallClock(*base_.state, seconds * NS_PER_SECOND);
    return true;
}

void LabTime::realTime()
{
    const LabLock hold(*base_.state);
    resetClock(*base_.state);
}

double LabTime::speed() const
{
    return static_cast<double>(readClock(*base_.state).speedMilli) / CLOCK_SPEED_ONE;
}

std::string LabTime::wall() const
{
    const auto now = static_cast<time_t>(wallNow(*base_.state) / NS_PER_SECOND);
    tm parts{};
    char text[64];
    localtime_r(&now, &parts);
    return std::string(text, strftime(text, sizeof(text), WALL_FORMAT, &parts));
}

int64_t LabTime::nowNs() const
{
    return labNow(*base_.state);
}

int64_t LabTime::wallAtZeroNs() const
{
    return wallNow(*base_.state) - labNow(*base_.state);
}
