// Looking at the motors and the clock of a lab, and interfering with them.

#include "lab/lab.h"

#include "lab/clock.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>

namespace {

int64_t machineWallNs()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

constexpr const char* WALL_FORMAT = "%Y-%m-%d %H:%M:%S";

} // namespace

void Lab::editFaults(LabAxisId axis, const std::function<void(LabFaults&)>& edit)
{
    const LabLock hold(*state_);
    edit(state_->axes[axis].faults);
    bumpAndWake(state_->axes[axis].wake);
}

void Lab::failRequest(LabAxisId axis, LabRequest request, int32_t times, int error, int32_t passes)
{
    editFaults(axis, [=](LabFaults& faults) {
        faults.requests[request].passes = passes;
        faults.requests[request].failures = times;
        faults.requests[request].error = error;
    });
}

void Lab::delayRequest(LabAxisId axis, LabRequest request, int32_t delayMs)
{
    editFaults(axis, [=](LabFaults& faults) { faults.requests[request].delayMs = delayMs; });
}

void Lab::stuckRunning(LabAxisId axis, bool stuck)
{
    editFaults(axis, [=](LabFaults& faults) { faults.stuckRunning = stuck ? 1 : 0; });
}

void Lab::reportCapability(LabAxisId axis, const std::optional<LabAxisSetting>& capability)
{
    editFaults(axis, [&](LabFaults& faults) {
        faults.capaReplaced = capability ? 1 : 0;
        const LabAxisSetting shown = capability.value_or(LabAxisSetting{});
        faults.capability[0] = shown.range;
        faults.capability[1] = shown.max_speed;
        faults.capability[2] = shown.total_steps;
    });
}

bool Lab::heal(LabAxisId axis)
{
    editFaults(axis, [](LabFaults& faults) { faults = LabFaults{}; });
    return setNode(axis, true);
}

LabFaults Lab::faults(LabAxisId axis)
{
    const LabLock hold(*state_);
    return state_->axes[axis].faults;
}

void Lab::setFactor(LabAxisId axis, int32_t stepsPerSecondAndSpeed)
{
    const LabLock hold(*state_);
    LabAxisEdit edit(*state_, axis);
    setAxisFactor(*edit, edit.labNs(), stepsPerSecondAndSpeed);
    edit.commit();
}

void Lab::powerLoss()
{
    const LabLock hold(*state_);
    const int journal = openJournal(folder_.c_str());
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT}) {
        LabAxisEdit edit(*state_, axis);
        losePower(*edit, edit.labNs());
        appendJournal(journal, *state_, axis, edit, {JOURNAL_POWER_LOSS, nullptr, 0, nullptr});
        edit.commit();
    }
    if (journal >= 0)
        close(journal);
}

LabAxisNow Lab::axisNow(LabAxisId axis)
{
    const LabLock hold(*state_);
    LabAxisEdit edit(*state_, axis);
    return axisAt(*edit, edit.labNs());
}

LabAxisSetting Lab::axisSetting(LabAxisId axis)
{
    const LabLock hold(*state_);
    LabAxisEdit edit(*state_, axis);
    return {edit->range, edit->maxSpeed, edit->totalSteps};
}

uint32_t Lab::served(LabAxisId axis, LabRequest request) const
{
    return state_->axes[axis].served[request].load();
}

uint32_t Lab::timersCreated() const
{
    return state_->timersCreated.load();
}

void Lab::setCet(LabCetMode mode, int32_t delayMs)
{
    state_->cetDelayMs.store(delayMs);
    state_->cetMode.store(mode);
}

LabCetMode Lab::cetMode() const
{
    return static_cast<LabCetMode>(state_->cetMode.load());
}

void Lab::setSpeed(double labPerReal)
{
    const LabLock hold(*state_);
    const auto speedMilli = static_cast<int64_t>(std::llround(labPerReal * CLOCK_SPEED_ONE));
    if (speedMilli != readClock(*state_).speedMilli)
        setClockSpeed(*state_, speedMilli, machineWallNs());
}

bool Lab::setWall(const std::string& localTime)
{
    tm parts{};
    const char* end = strptime(localTime.c_str(), WALL_FORMAT, &parts);
    parts.tm_isdst = -1;
    const time_t seconds = end && *end == '\0' ? mktime(&parts) : -1;
    if (seconds < 0)
        return fail("not a time of the form YYYY-MM-DD HH:MM:SS: " + localTime);
    const LabLock hold(*state_);
    setWallClock(*state_, seconds * NS_PER_SECOND);
    return true;
}

void Lab::realTime()
{
    const LabLock hold(*state_);
    resetClock(*state_);
}

double Lab::speed() const
{
    return static_cast<double>(readClock(*state_).speedMilli) / CLOCK_SPEED_ONE;
}

std::string Lab::wall() const
{
    const LabClock clock = readClock(*state_);
    const time_t now =
        static_cast<time_t>((clock.wallIsReal ? machineWallNs() : wallTimeAt(clock, monotonicNs())) / NS_PER_SECOND);
    tm parts{};
    char text[64];
    localtime_r(&now, &parts);
    return std::string(text, strftime(text, sizeof(text), WALL_FORMAT, &parts));
}

int64_t Lab::labTimeNs() const
{
    return labNow(*state_);
}

std::optional<int64_t> Lab::wallAtZeroNs() const
{
    const LabClock clock = readClock(*state_);
    if (clock.wallIsReal)
        return {};
    return clock.wallNs;
}
