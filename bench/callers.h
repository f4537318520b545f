// Clients of a lab's bus that call one method without pause, each as soon as its last call is answered. One thread, and
// one event loop for the whole process.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One method of one object. The two arguments, JSON objects or empty, take turns.
struct Target {
    const char* object;
    const char* method;
    const char* arguments[2] = {"", ""};
};

struct CallTimes {
    std::vector<double> us; // of each call, from sending to the end of its answer
    double perSecond = 0;
};

/// CLOCK_MONOTONIC in ns; both 0 when the call failed.
struct CallMoment {
    int64_t sentNs = 0;
    int64_t answeredNs = 0;
};

class Caller;

class Callers {
public:
    Callers(const std::string& socket, int count);
    ~Callers();
    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;

    /// All clients at once for that long. Without times when the bus or the object is not there or a call fails.
    CallTimes run(const Target& target, std::chrono::milliseconds window);
    /// One call of the first client.
    CallMoment once(const Target& target);

private:
    std::vector<std::unique_ptr<Caller>> callers_;
};
