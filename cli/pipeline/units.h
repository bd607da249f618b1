#pragma once
// Numbers as kesta shows them to people: durations, decibels, short times.

#include <cstdint>
#include <string>

namespace kesta {

// 20·log10(x); -inf for 0.
double LinearToDb(double linear);
double DbToLinear(double db);

// "-6.02", "+3.50" with `showPlus`, "-inf".
std::string FormatDb(double db, int decimals = 2, bool showPlus = false);
// A length of audio as h:mm:ss.mmm, to the nearest millisecond.
std::string FormatLength(int64_t frames, int sampleRate);
// A duration as h:mm:ss (m:ss when under an hour), or h:mm:ss.mmm with `millis`.
std::string FormatClock(double seconds, bool millis);
// A short elapsed time: "0.42 ms", "12.3 ms", "1.25 s".
std::string FormatElapsed(double seconds);

}  // namespace kesta
