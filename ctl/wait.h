// Commands that move the head, and the wait for the end of the motion that they begin.
#pragma once

#include "bus.h"

/// What the daemon names a motion's cause, in its notifications.
enum class Origin { User, Return, Calibration };

/// Calls a method that begins a motion whenever it succeeds. With --wait returns once that is over, at its target; any
/// other end, a refusal, a signal, and a daemon that notifies no begin end the program by their own status.
void moveHead(const char* method, Message& arguments, Origin origin = Origin::User);
void moveHead(const char* method, Origin origin = Origin::User);

/// The same in two parts, for a command that looks at the reply's code in its own way, or may begin no motion: it is
/// over with the reply then.
class MotionWait {
public:
    /// Subscribes, with --wait.
    explicit MotionWait(Origin origin);
    /// Calls the method, once; @return the reply, whatever its code.
    [[nodiscard]] Reply call(const char* method, Message& arguments) const;
    /// Waits for the end of the motion that the call has begun, if it has begun one.
    void finish() const;
};
