#pragma once
// A descriptor of the lab's journal in a program that knows nothing of it.

/// A descriptor to append to the lab's journal, kept open from request to request; -1 when there is none to be had.
/// Opened anew when the file that stands there is another, or when somebody has taken the descriptor away. Needs
/// LabState::lock until the line is written. Any thread.
int journalDescriptor();
