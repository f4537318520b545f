// The bus: one connection, the object "ptzd", its methods and its notifications.
//
// Calls are sent and then waited for on the connection's descriptor, beside signals and a deadline. The library's event
// loop is not used.
#pragma once

#include "command.h"

#include "core/bus_library.h"
#include "core/owned.h"

#include <stdint.h>

/// The arguments of a call; empty to begin with.
class Message {
public:
    Message();
    ~Message();
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    Message& text(const char* name, const char* value);
    Message& number(const char* name, int32_t value); // as the methods want it, a text
    blob_buf* buffer()
    {
        return &buffer_;
    }
    blob_attr* content()
    {
        return buffer_.head;
    }

private:
    blob_buf buffer_{};
};

/// What a call came to.
enum class CallEnd { Answered, NotAnswered, NoSuchObject, Refused, Lost, Signal };

struct Reply {
    Owned<blob_attr> fields; // null unless answered
    int busStatus = 0;       // of Refused
    int32_t code = 0;        // error_code or err_code; 0 where there is none
};

/// Milliseconds of the monotonic clock.
[[nodiscard]] int64_t nowMs();

/// Connects and looks for the daemon, once; `die` with EXIT_NO_BUS, EXIT_NO_DAEMON or EXIT_TIMEOUT.
void connectToDaemon();

/// The same without an end: @return false when bus or daemon is not there. Closes an earlier connection.
[[nodiscard]] bool tryConnect(bool& busThere);

/// Calls a method and waits for its answer, for as long as -t says. Notifications that come before it are handed on.
[[nodiscard]] CallEnd tryCall(const char* method, Message& arguments, Reply& reply);

/// Ends the program for a call that was not answered.
[[noreturn]] void dieOfCall(CallEnd end, const char* method, const Reply& reply);

/// The same; whatever keeps it from being answered ends the program. The reply's code may be an error.
[[nodiscard]] Reply callMethod(const char* method, Message& arguments);

/// The same, and a code that is not 0 ends the program, too; with --json the reply is printed in any case.
Reply command(const char* method, Message& arguments);
Reply command(const char* method);

/// The exit status of a reply's code, and a text that says what to do.
struct CodeMeaning {
    ExitStatus status;
    const char* text;
};
[[nodiscard]] CodeMeaning meaningOf(int32_t code);

/// Ends the program when the code is not 0.
void dieUnlessDone(int32_t code);

/// A message as compact JSON, or null without memory; and printed as one line.
[[nodiscard]] Owned<char> jsonOf(blob_attr* fields);
void printJson(blob_attr* fields);

/// A field of a table by its name, or null when it is missing or of another type.
[[nodiscard]] blob_attr* fieldOf(blob_attr* table, const char* name, int type);
/// A text's value, or the other one.
[[nodiscard]] const char* textOf(blob_attr* table, const char* name, const char* otherwise);

/// What wakes a wait.
enum class Wake { Handled, Deadline, Lost, Signal, NoReader };

/// Waits until the deadline for one message, which it handles, or a signal that has been caught. `watchOutput`: also
/// for the end of whoever reads standard output.
[[nodiscard]] Wake waitForMessage(int64_t deadlineMs, bool watchOutput = false);

using NoteHandler = void(blob_attr* fields);

/// Has the daemon's notifications "motion" handed to `onNote` from now on. `die` when that fails.
void subscribe(NoteHandler* onNote);
[[nodiscard]] bool trySubscribe(NoteHandler* onNote);

/// Whether the daemon has left the bus since the subscription.
[[nodiscard]] bool daemonGone();

/// From now on SIGINT, SIGTERM and SIGHUP end a wait instead of the program.
void catchSignals();
/// They end the program again.
void releaseSignals();
/// The number of the signal caught, or 0.
[[nodiscard]] int caughtSignal();
