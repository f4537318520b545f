#pragma once
// The journal of a lab: DIR/journal, one line a request. docs/lab.md describes the format for readers.

#include "lab/state_file.h"

inline constexpr const char* LAB_REQUEST_NAMES[LAB_REQUEST_COUNT] = {
    "GET_CAPA", "SET_POSITION", "GET_STATUS", "SET_SPEED", "ROTATE", "MOVE", "STOP"};
/// The end of a ROTATE, whose own line is written when it begins.
inline constexpr const char* JOURNAL_ROTATE_END = "ROTATE_END";
/// The driver of the axis has lost its power.
inline constexpr const char* JOURNAL_POWER_LOSS = "POWER_LOSS";

inline constexpr int LAB_WORDS = 5;

/// What one line tells besides the axis itself.
struct LabJournalNote {
    const char* request;
    const int32_t* wordsIn;  // five words, or null
    int32_t result;          // 0, or the errno value that the caller gets
    const int32_t* wordsOut; // five words, or null
};

/// Opens the journal of a folder for appending, and creates it if it is missing. -1 when that fails. Any thread.
int openJournal(const char* folder);

/// Appends one line with a single write(2). `edit` gives the axis after the request and the moment. Needs
/// LabState::lock, so that the lines are in the order in which requests took effect. A failure is only reported.
void appendJournal(int journal, const LabState& state, LabAxisId id, LabAxisEdit& edit, const LabJournalNote& note);
