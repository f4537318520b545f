#pragma once
// The two motor devices, as a program sees them through ioctl(2).

/// Which axis a descriptor is open on; LAB_AXIS_COUNT: none. Any thread, no lock.
unsigned motorAxisOf(int fd);

/// Serves one of the seven requests. 0, or an errno value. Blocks while a ROTATE turns and while a delay lasts; holds
/// LabState::lock only to look at and change the axis.
int serveMotor(unsigned axis, unsigned request, void* record);
