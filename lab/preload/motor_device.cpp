// The two motor devices, as a program sees them through ioctl(2).

#include "context.h"
#include "lab/clock.h"
#include "lab/journal.h"

#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// The C libraries disagree about the type of a request's number.
template <typename Number>
Number numberOf(int (*)(int, Number, ...));
using RequestNumber = decltype(numberOf(ioctl));

constexpr unsigned MOTOR_TYPE = 0xDE;
constexpr unsigned RECORD_SIZE = sizeof(int32_t) * LAB_WORDS;
constexpr uint32_t REQUEST_WORDS[LAB_REQUEST_COUNT] = {
    _IOC(_IOC_READ, MOTOR_TYPE, LAB_GET_CAPA, RECORD_SIZE),
    _IOC(_IOC_WRITE, MOTOR_TYPE, LAB_SET_POSITION, RECORD_SIZE),
    _IOC(_IOC_READ, MOTOR_TYPE, LAB_GET_STATUS, RECORD_SIZE),
    _IOC(_IOC_WRITE, MOTOR_TYPE, LAB_SET_SPEED, RECORD_SIZE),
    _IOC(_IOC_WRITE, MOTOR_TYPE, LAB_ROTATE, RECORD_SIZE),
    _IOC(_IOC_WRITE, MOTOR_TYPE, LAB_MOVE, RECORD_SIZE),
    _IO(MOTOR_TYPE, LAB_STOP),
};
constexpr int WORD_SPEED = 1;
constexpr int WORD_STEPS = 2;

/// Kept open, as opening takes longer than writing a line, at a number that programs do not use; opened again if it was
/// deleted, or the number closed or used for another file. Needs LabState::lock until the line is written.
int journal()
{
    static int kept = -1;
    static struct stat file;
    struct stat now;
    const bool ours = kept >= 0 && fstat(kept, &now) == 0 && now.st_ino == file.st_ino && now.st_dev == file.st_dev;
    if (ours && now.st_nlink > 0)
        return kept;
    if (ours)
        close(kept);
    const int opened = openJournal(labFolder());
    kept = fcntl(opened, F_DUPFD_CLOEXEC, 200);
    close(opened);
    (void)fstat(kept, &file);
    return kept;
}

struct Words {
    int32_t word[LAB_WORDS];
};

Words capabilityOf(const LabAxis& axis, const LabFaults& faults)
{
    if (faults.capaReplaced)
        return {{faults.capability[0], faults.capability[1], faults.capability[2], 0, 0}};
    return {{axis.range, axis.maxSpeed, axis.totalSteps, 0, 0}};
}

Words statusOf(const LabAxis& axis, int64_t labNs, LabAxisRecord& record)
{
    const LabAxisNow now = axisAt(axis, labNs);
    const bool slowing = record.slowdownLeft > 0;
    record.slowdownLeft -= slowing ? 1 : 0;
    return {{0, now.speed, now.count, slowing || record.faults.stuckRunning ? 1 : now.running, now.direction}};
}

/// Takes one failure off the account of a request. 0 when it is to succeed, else the errno value.
int takeFailure(LabFault& fault)
{
    if (fault.failures == 0)
        return 0;
    if (fault.passes > 0) {
        --fault.passes;
        return 0;
    }
    if (fault.failures > 0)
        --fault.failures;
    return fault.error;
}

void apply(LabAxisEdit& edit, unsigned request, const Words& words)
{
    switch (request) {
    case LAB_SET_POSITION:
        setAxisCount(*edit, edit.labNs(), words.word[WORD_STEPS]);
        break;
    case LAB_SET_SPEED:
        setAxisSpeed(*edit, edit.labNs(), words.word[WORD_SPEED]);
        break;
    case LAB_ROTATE:
        startMotion(*edit, edit.labNs(), 0, words.word[WORD_STEPS]);
        break;
    case LAB_MOVE:
        startMotion(*edit, edit.labNs(), words.word[WORD_SPEED], words.word[WORD_STEPS]);
        break;
    case LAB_STOP:
        stopMotion(*edit, edit.labNs());
        break;
    default: // the two that only read
        break;
    }
}

struct Outcome {
    int result;
    uint32_t motionId; // of the motion that a ROTATE began
};

/// The part of a request that the lock covers: effect, answer, journal.
Outcome takeEffect(LabState& state, LabAxisId id, unsigned request, Words& words)
{
    const LabLock hold(state);
    LabAxisRecord& record = state.axes[id];
    LabAxisEdit edit(state, id);
    const bool reads = request == LAB_GET_CAPA || request == LAB_GET_STATUS;
    const bool writes = !reads && request != LAB_STOP;
    const Words in = words;
    const int result = takeFailure(record.faults.requests[request]);
    if (result == 0) {
        if (writes || request == LAB_STOP)
            record.slowdownLeft = request == LAB_STOP && axisAt(*edit, edit.labNs()).running ? record.slowdown : 0;
        apply(edit, request, words);
        if (request == LAB_GET_CAPA)
            words = capabilityOf(*edit, record.faults);
        else if (request == LAB_GET_STATUS)
            words = statusOf(*edit, edit.labNs(), record);
    }
    record.served[request].fetch_add(1);
    appendJournal(
        journal(), state, id, edit,
        {LAB_REQUEST_NAMES[request], writes ? in.word : nullptr, result, reads && result == 0 ? words.word : nullptr});
    if (!reads && result == 0)
        edit.commit();
    return {result, edit->motionId};
}

/// Waits for the end of a rotation. EIO when somebody stopped or replaced it, or the power went.
int awaitRotation(LabState& state, LabAxisId id, uint32_t motionId)
{
    LabAxisRecord& record = state.axes[id];
    for (;;) {
        const uint32_t seen = record.wake.load();
        int64_t endNs = 0;
        {
            const LabLock hold(state);
            LabAxisEdit edit(state, id);
            if (edit->motionId != motionId || edit->motionSteps == 0) {
                const int result = motionCompleted(*edit, motionId) ? 0 : EIO;
                appendJournal(journal(), state, id, edit, {JOURNAL_ROTATE_END, nullptr, result, nullptr});
                edit.commit();
                return result;
            }
            endNs = motionEndNs(*edit);
        }
        waitWord(record.wake, seen, realTimeOf(readClock(state), endNs));
    }
}

/// Keeps the answer back for as long as the fault says, which may change meanwhile.
void delayAnswer(LabState& state, LabAxisId id, unsigned request)
{
    LabAxisRecord& record = state.axes[id];
    const int64_t since = monotonicNs();
    for (;;) {
        const uint32_t seen = record.wake.load();
        int64_t until = since;
        {
            const LabLock hold(state);
            until += record.faults.requests[request].delayMs * NS_PER_MS;
        }
        if (monotonicNs() >= until)
            return;
        waitWord(record.wake, seen, until);
    }
}

/// Which axis a descriptor is open on; LAB_AXIS_COUNT: none.
unsigned motorAxisOf(int fd)
{
    const LabState* state = labState();
    struct stat info {};
    if (!state || fstat(fd, &info) != 0)
        return LAB_AXIS_COUNT;
    unsigned axis = 0;
    while (axis < LAB_AXIS_COUNT &&
           (state->axes[axis].nodeDevice != info.st_dev || state->axes[axis].nodeInode != info.st_ino))
        ++axis;
    return axis;
}

/// Serves one of the seven requests. 0, or an errno value. Blocks while a ROTATE turns and while a delay lasts; holds
/// LabState::lock only to look at and change the axis.
int serveMotor(unsigned axis, unsigned request, void* record)
{
    LabState& state = *labState();
    const auto id = static_cast<LabAxisId>(axis);
    Words words{};
    const bool reads = request == LAB_GET_CAPA || request == LAB_GET_STATUS;
    if (request != LAB_STOP && !record)
        return EFAULT;
    if (request != LAB_STOP && !reads)
        memcpy(&words, record, sizeof(words));
    const Outcome outcome = takeEffect(state, id, request, words);
    int result = outcome.result;
    if (result == 0 && request == LAB_ROTATE)
        result = awaitRotation(state, id, outcome.motionId);
    delayAnswer(state, id, request);
    if (result == 0 && reads)
        memcpy(record, &words, sizeof(words));
    return result;
}

} // namespace

#pragma GCC visibility push(default)

extern "C" int ioctl(int fd, RequestNumber request, ...) C_NOEXCEPT
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto word = static_cast<uint32_t>(request); // programs that pass an int extend its sign
    unsigned number = 0;
    while (number < LAB_REQUEST_COUNT && REQUEST_WORDS[number] != word)
        ++number;
    const unsigned axis = number < LAB_REQUEST_COUNT ? motorAxisOf(fd) : unsigned{LAB_AXIS_COUNT};
    if (axis == LAB_AXIS_COUNT)
        return NEXT(ioctl)(fd, request, argument);
    const int result = serveMotor(axis, number, argument);
    if (result == 0)
        return 0;
    errno = result;
    return -1;
}

#pragma GCC visibility pop
