// What a daemon holds over its time, as a picture.
#pragma once

#include <string>
#include <vector>

/// What a look at the daemon has shown.
struct Sample {
    double hours; // of the lab, since its start
    int life;     // counts the daemon's starts
    long residentKb;
    long descriptors;
    long threads;
    long timers; // created since that start
};

/// An SVG picture of all four; where a life ends a line says so.
std::string drawSamples(const std::vector<Sample>& samples, const std::string& title);
