// What a daemon holds over its time, as a picture.
#pragma once

#include <array>
#include <string>
#include <vector>

enum Held { RESIDENT_KB, DESCRIPTORS, THREADS, TIMERS, HELD_COUNT }; // timers: created since the daemon's start

/// What a look at the daemon has shown.
struct Sample {
    double hours; // of the lab, since its start
    int life;     // counts the daemon's starts
    std::array<long, HELD_COUNT> held;
};

/// An SVG picture of all four; where a life ends a line says so.
std::string drawSamples(const std::vector<Sample>& samples, const std::string& title);
