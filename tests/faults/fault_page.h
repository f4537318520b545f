// docs/failures.md is the matrix: its tables say what fails and what follows, and the tests do and check what they say.
#pragma once

#include "inject/fault_control.h"
#include "lab/lab.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

/// A row of a table: cells by the heads of their columns, without backquotes; "–" is an empty cell.
struct PageRow {
    int line;
    std::map<std::string, std::string> cells;

    const std::string& operator[](const std::string& column) const;
};

/// The rows of all tables below the heading "## `heading`" of the page, in order.
std::vector<PageRow> pageRows(const std::string& heading);

/// The parts of a cell between separators, without blanks around them; none for an empty cell.
std::vector<std::string> partsOf(const std::string& cell, char separator);

/// What a cell of the column Notified, or Log, means; messages in alphabetical order.
std::vector<std::string> notifiedBy(const std::string& cell);
std::vector<std::string> loggedBy(const std::string& cell);

/// One call or device request that fails: "2 y MOVE", "every uci_commit ptzd", "malloc", "3 times ubus_reconnect".
struct FaultPoint {
    std::string text{};
    std::optional<LabAxisId> axis{}; // of a device request
    LabRequest request = LAB_REQUEST_COUNT;
    FaultCall call = FAULT_CALL_COUNT;
    std::string subject{};
    int32_t nth = 1;
    int32_t times = 1;     // unless it fails for ever
    bool onlyOnce = false; // "once": what follows when it goes on failing is another story
    bool onlyEvery = false;
    int32_t delayMs = 0; // succeeds so much later (real time), in place of a failure
};

/// Nothing for a text that names no such thing.
std::optional<FaultPoint> faultPoint(const std::string& text);
