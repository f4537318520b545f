// The adapter of the two motor drivers: their records, their seven requests, and nothing else.
//
// Requests may be made from any thread at any time, several at once on one axis; they take no lock. Each returns
// RESULT_OK, or ERR_DEVICE when the driver refuses.
#pragma once

#include "core/context.h"
#include "core/result_code.h"

#include <stdint.h>
#include <sys/ioctl.h>

enum AxisIndex { PAN = 0, TILT = 1, AXIS_COUNT = 2 };

/// One axis: constants, then what motorInit learns. Nothing of it changes once the worker threads run.
struct MotorAxis {
    char device_path[16];
    char section[32];   // of package ptzd
    int32_t home_coord; // coordinate units
    int32_t fd;         // 0 while not open
    int32_t range;      // coordinate units over the whole travel
    int32_t max_speed;
    int32_t total_steps; // motor steps over the whole travel
};

struct MotorAxes {
    MotorAxis axes[AXIS_COUNT] = {
        {"/dev/x-motor", "x_motor", 0, 0, 0, 0, 0},
        {"/dev/y-motor", "y_motor", -6, 0, 0, 0, 0},
    };

    MotorAxis& operator[](AxisIndex axis)
    {
        return axes[axis];
    }
};

/// The driver's records: five words each, in the processor's byte order.
struct MotorCapability {
    int32_t range; // travel in coordinate units
    int32_t max_speed;
    int32_t total_steps; // motor steps over the whole travel
    int32_t reserved[2];
};

struct MotorStatus {
    int32_t reserved;
    int32_t speed;
    int32_t position;  // steps from the axis's zero end
    int32_t running;   // 0 while the axis rests
    int32_t direction; // +1 or -1
};

struct MotorCommand {
    int32_t reserved;
    int32_t speed;
    int32_t steps; // absolute for a position, relative for a rotation or a move
    int32_t reserved2[2];
};

/// Both axes' statuses, read one after the other.
struct HeadStatus {
    MotorStatus axes[AXIS_COUNT];

    const MotorStatus& operator[](AxisIndex axis) const
    {
        return axes[axis];
    }
    /// Whether either axis runs.
    [[nodiscard]] bool running() const
    {
        return axes[PAN].running != 0 || axes[TILT].running != 0;
    }
};

/// What a motion asks of both axes.
struct HeadCommand {
    MotorCommand pan;
    MotorCommand tilt;
};

static_assert(sizeof(MotorCapability) == 20 && sizeof(MotorStatus) == 20 && sizeof(MotorCommand) == 20);

inline constexpr unsigned MOTOR_IOC_MAGIC = 0xDE;
inline constexpr unsigned long MOTOR_IOC_GET_CAPA = _IOR(MOTOR_IOC_MAGIC, 0, MotorCapability);
inline constexpr unsigned long MOTOR_IOC_SET_POSITION = _IOW(MOTOR_IOC_MAGIC, 1, MotorCommand);
inline constexpr unsigned long MOTOR_IOC_GET_STATUS = _IOR(MOTOR_IOC_MAGIC, 2, MotorStatus);
inline constexpr unsigned long MOTOR_IOC_SET_SPEED = _IOW(MOTOR_IOC_MAGIC, 3, MotorCommand);
inline constexpr unsigned long MOTOR_IOC_ROTATE = _IOW(MOTOR_IOC_MAGIC, 4, MotorCommand);
inline constexpr unsigned long MOTOR_IOC_MOVE = _IOW(MOTOR_IOC_MAGIC, 5, MotorCommand);
inline constexpr unsigned long MOTOR_IOC_STOP = _IO(MOTOR_IOC_MAGIC, 6);

// The driver is compiled with the macros of its architecture's kernel. Most architectures share these numbers; MIPS,
// PowerPC, SPARC and Alpha write the direction into other bits.
static_assert(_IOC_NONE != 0 || _IOC_WRITE != 1 || _IOC_READ != 2 ||
              (MOTOR_IOC_GET_CAPA == 0x8014DE00 && MOTOR_IOC_SET_POSITION == 0x4014DE01 &&
               MOTOR_IOC_GET_STATUS == 0x8014DE02 && MOTOR_IOC_SET_SPEED == 0x4014DE03 &&
               MOTOR_IOC_ROTATE == 0x4014DE04 && MOTOR_IOC_MOVE == 0x4014DE05 && MOTOR_IOC_STOP == 0x0000DE06));

/// Opens an axis's device. @return a descriptor above 0, else 0 or -1. Thread: main.
[[nodiscard]] int motorOpen(AxisIndex axis);

/// Closes an axis's device when it is open. Thread: main, when no other thread uses the axis any more.
void motorClose(AxisIndex axis);

[[nodiscard]] ResultCode motorGetCapability(AxisIndex axis, MotorCapability& out);
[[nodiscard]] ResultCode motorGetStatus(AxisIndex axis, MotorStatus& out);

/// Both axes' statuses, pan first; tilt is not asked when pan fails.
[[nodiscard]] ResultCode motorReadStatus(HeadStatus& out);

/// Sets the absolute position, in steps, that the driver takes the axis to be at.
[[nodiscard]] ResultCode motorSetPosition(AxisIndex axis, int32_t steps);

/// Sets the speed the axis uses from now on, also while it runs.
[[nodiscard]] ResultCode motorSetSpeed(AxisIndex axis, int32_t speed);

/// Rotates by relative steps and returns when the rotation is over.
[[nodiscard]] ResultCode motorRotate(AxisIndex axis, int32_t steps);

/// Starts a motion and returns at once.
[[nodiscard]] ResultCode motorMove(AxisIndex axis, const MotorCommand& command);

[[nodiscard]] ResultCode motorStop(AxisIndex axis);

/// Stops pan and, when that succeeded, tilt.
[[nodiscard]] ResultCode motorStopBoth();

/// Sends a move request to pan and then to tilt, both in any case. @return ERR_DEVICE when either failed.
[[nodiscard]] ResultCode driveAxes(const HeadCommand& command);

/// The command that sends an axis by relative steps at a speed; 0 is the configured one. Every other word is 0.
[[nodiscard]] MotorCommand relativeCommand(int32_t steps, int32_t speed = 0);

/// The command that sends an axis to an absolute position in steps, with the other words as its status reported them.
[[nodiscard]] MotorCommand targetCommand(const MotorStatus& status, int32_t targetSteps);

/// The same for both axes, and with their largest speeds.
[[nodiscard]] HeadCommand targetCommands(const HeadStatus& head, int32_t panSteps, int32_t tiltSteps);
[[nodiscard]] HeadCommand fullSpeedCommands(const HeadStatus& head, int32_t panSteps, int32_t tiltSteps);
