#include "wait.h"

#include <stdio.h>
#include <string.h>

#include <limits>

namespace {

constexpr const char* ORIGINS[] = {"user", "return", "calibration"}; // in the order of Origin

/// The motion that is waited for: the last one begun before the reply, with the origin that the call gives it.
struct {
    const char* origin;
    bool replied;
    bool begun;
    bool ended;
    uint32_t id;
    uint32_t by;
    char outcome[16];
    char place[48]; // " at pan 1, tilt 2", or empty
    char* json;     // the notification of the end; kept until the process ends
} gMotion;

uint32_t numberOf(blob_attr* note, const char* name)
{
    const blob_attr* field = fieldOf(note, name, BLOBMSG_TYPE_INT32);
    return field ? blobmsg_get_u32(field) : 0;
}

void onNote(blob_attr* note)
{
    const uint32_t id = numberOf(note, "id");
    const bool begins = strcmp(textOf(note, "state", ""), "moving") == 0;
    if (begins) {
        if (!gMotion.replied && strcmp(textOf(note, "origin", ""), gMotion.origin) == 0) {
            gMotion.begun = true;
            gMotion.ended = false;
            gMotion.id = id;
        }
        return;
    }
    if (!gMotion.begun || gMotion.ended || id != gMotion.id)
        return;
    gMotion.ended = true;
    gMotion.by = numberOf(note, "by");
    (void)snprintf(gMotion.outcome, sizeof(gMotion.outcome), "%s", textOf(note, "outcome", ""));
    if (const char* x = textOf(note, "x", nullptr))
        (void)snprintf(gMotion.place, sizeof(gMotion.place), " at pan %s, tilt %s", x, textOf(note, "y", "?"));
    gMotion.json = jsonOf(note).release();
}

/// Stops the head, unless --no-stop; ends by the signal's status.
[[noreturn]] void endBySignal()
{
    const int number = caughtSignal();
    releaseSignals(); // a second one ends the program at once
    if (!options().stopOnSignal)
        quit(EXIT_BY_SIGNAL + number);
    Message nothing;
    Reply reply;
    const CallEnd end = tryCall("stop", nothing, reply);
    if (end != CallEnd::Answered)
        fprintf(stderr, "ptzctl: ptzd has not answered stop: the head may go on\n");
    else if (reply.code != 0 && meaningOf(reply.code).text)
        fprintf(stderr, "ptzctl: the head goes on: %s\n", meaningOf(reply.code).text);
    quit(EXIT_BY_SIGNAL + number);
}

/// Ends by the status of the outcome; returns when the target is reached.
void judgeOutcome()
{
    if (strcmp(gMotion.outcome, "reached") == 0)
        return;
    if (strcmp(gMotion.outcome, "limit") == 0)
        die(EXIT_LIMIT, "the end of the travel stopped the head%s, short of the target", gMotion.place);
    if (strcmp(gMotion.outcome, "stopped") == 0)
        die(EXIT_STOPPED, "the motion was stopped%s", gMotion.place);
    if (strcmp(gMotion.outcome, "superseded") == 0)
        die(EXIT_SUPERSEDED, "another command (motion %u) took the head over%s", gMotion.by, gMotion.place);
    die(EXIT_DEVICE, "the motion failed%s: look into ptzd's log", gMotion.place);
}

} // namespace

MotionWait::MotionWait(Origin origin)
{
    if (!options().wait)
        return;
    gMotion = {};
    gMotion.origin = ORIGINS[static_cast<int>(origin)];
    subscribe(onNote);
    catchSignals();
}

Reply MotionWait::call(const char* method, Message& arguments) const
{
    connectToDaemon();
    Reply reply;
    if (!options().wait) {
        reply = callMethod(method, arguments);
    } else {
        // A command that is under way may have begun its motion: Ctrl-C stops that one, too.
        const CallEnd end = tryCall(method, arguments, reply);
        if (end == CallEnd::Signal)
            endBySignal();
        if (end != CallEnd::Answered)
            dieOfCall(end, method, reply);
        gMotion.replied = true;
    }
    if (options().json)
        printJson(reply.fields.get());
    return reply;
}

void MotionWait::finish() const
{
    if (!options().wait || !gMotion.begun)
        return;
    const int64_t deadline = options().waitMs > 0 ? nowMs() + options().waitMs : std::numeric_limits<int64_t>::max();
    fflush(stdout);
    while (!gMotion.ended) {
        const Wake wake = waitForMessage(deadline);
        if (gMotion.ended)
            break;
        if (wake == Wake::Signal)
            endBySignal();
        if (wake == Wake::Deadline)
            die(EXIT_TIMEOUT, "the motion is not over after %g s, and goes on: `ptzctl stop` stops it",
                static_cast<double>(options().waitMs) / 1000);
        if (wake == Wake::Lost || daemonGone())
            die(EXIT_LOST, "%s went away during the motion, whose end is not known",
                wake == Wake::Lost ? "the bus" : "ptzd");
    }
    if (options().json)
        printf("%s\n", gMotion.json ? gMotion.json : "{}");
    judgeOutcome();
}

void moveHead(const char* method, Message& arguments, Origin origin)
{
    const MotionWait wait(origin);
    dieUnlessDone(wait.call(method, arguments).code);
    if (options().wait && !gMotion.begun)
        die(EXIT_OTHER, "ptzd has notified no begin, so the end cannot be waited for; the head may move");
    wait.finish();
}

void moveHead(const char* method, Origin origin)
{
    Message nothing;
    moveHead(method, nothing, origin);
}
