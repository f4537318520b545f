// A line for each begin and end of a motion, and the head's position while it moves.

#include "head.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <limits>

namespace {

constexpr int64_t LOOK_MS = 200;  // between two positions
constexpr int64_t AGAIN_MS = 500; // between two tries to find the daemon

bool gMoving;
HeadNow gShown; // the position printed last

void printTime()
{
    const time_t now = time(nullptr);
    tm local{};
    char text[16] = "";
    if (localtime_r(&now, &local))
        (void)strftime(text, sizeof(text), "%H:%M:%S", &local);
    printf("%s  ", text);
}

int idOf(blob_attr* note, const char* name)
{
    const blob_attr* field = fieldOf(note, name, BLOBMSG_TYPE_INT32);
    return field ? static_cast<int>(blobmsg_get_u32(field)) : 0;
}

void onNote(blob_attr* note)
{
    gMoving = strcmp(textOf(note, "state", ""), "moving") == 0;
    if (options().json)
        return printJson(note);
    printTime();
    const char* x = textOf(note, "x", nullptr);
    const char* y = textOf(note, "y", "?");
    if (gMoving) {
        printf("motion %d begins: %s", idOf(note, "id"), textOf(note, "origin", "?"));
        if (x)
            printf(", to pan %s, tilt %s", x, y);
    } else {
        const char* outcome = textOf(note, "outcome", "?");
        printf("motion %d %s", idOf(note, "id"), outcome);
        if (const int by = idOf(note, "by"); by != 0)
            printf(" by motion %d", by);
        if (x)
            printf(", at pan %s, tilt %s", x, y);
    }
    printf("\n");
}

/// Prints where the head is, if that is news.
void look(bool first)
{
    Message nothing;
    Reply reply;
    if (options().json || tryCall("getStatus", nothing, reply) != CallEnd::Answered || reply.code != 0)
        return;
    const HeadNow head = headIn(reply);
    if (!first && head.x == gShown.x && head.y == gShown.y)
        return;
    gShown = head;
    gMoving = gMoving || (first && moves(head)); // one that began before
    if (!first && !gMoving)
        return; // its end has been printed meanwhile
    printTime();
    printf("pan %d, tilt %d%s\n", head.x, head.y, !first ? "" : moves(head) ? ", moving" : ", at rest");
}

void say(const char* text)
{
    if (options().json)
        fprintf(stderr, "ptzctl: %s\n", text);
    else {
        printTime();
        printf("%s\n", text);
    }
}

[[noreturn]] void endWatch()
{
    quit(EXIT_DONE);
}

/// Waits until the daemon is on the bus again.
void findAgain(bool busGone)
{
    say(busGone ? "the bus has gone: waiting for it" : "ptzd has gone: waiting for it");
    for (bool busThere = false; !tryConnect(busThere) || !trySubscribe(onNote);) {
        const timespec pause = {0, AGAIN_MS * 1'000'000};
        (void)nanosleep(&pause, nullptr); // a signal ends it early
        if (caughtSignal() != 0)
            endWatch();
    }
    gMoving = false;
    say("ptzd is there");
}

} // namespace

void watchMotions(Arguments)
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // a pipe gets each line at once
    subscribe(onNote);
    catchSignals();
    look(true);
    for (;;) {
        const int64_t deadline = gMoving ? nowMs() + LOOK_MS : std::numeric_limits<int64_t>::max();
        const Wake wake = waitForMessage(deadline, true);
        if (ferror(stdout) != 0 || wake == Wake::NoReader)
            _Exit(EXIT_DONE); // whoever read has had enough
        if (wake == Wake::Signal)
            endWatch();
        if (wake == Wake::Lost || daemonGone()) {
            findAgain(wake == Wake::Lost);
            look(true);
        } else if (wake == Wake::Deadline) {
            look(false);
        }
    }
}
