// The parts of the event loop, as they see one another. Loop's thread, unless something else is said.
#pragma once

// Timeouts: the list of those that are pending, in order of time.

// Runs what is due, in order of time; what a callback arms for now is run with it, for a millisecond at most.
void timeoutsRunDue();
// Milliseconds until the next timeout, at most `limit`; below 0 is no limit.
int timeoutsWait(int limit);
void timeoutsCancelAll();

// The descriptor that ends the loop's sleep.

// Opens it unless it is open; its number, or -1. Under the lock of uloop_init.
int wakeupOpen();
void wakeupClear();
// Any thread and signal handlers; nothing happens before it is open.
void wakeupSend();

// Signals: those that the loop handles while their disposition is the default.

// Both under the lock of uloop_init.
void signalsInstall();
void signalsRestore();
// Reaps every ended child of the process, if one ended since the last call.
void signalsReap();
// The signal that asked for the loop's end since the last signalsForget, or 0.
int signalsEnding();
void signalsForget();
