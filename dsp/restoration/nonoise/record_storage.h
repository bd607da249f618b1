#pragma once
// Record housekeeping shared by the classes of the family (not exported).

#include "dsp/nonoise.h"

namespace dsp::nonoise::detail {

// Releases every array the record points to, whatever its channel count (FreeArrays leaves a
// record with channels == 0 alone; an object dropping its own copy must not leak).
void ReleaseRecordArrays(NONOISE* p);

// Every field and every byte of the record set to zero, pointers null. Does not release.
void ZeroRecord(NONOISE* p);

// Blackman-Harris value for position k of an N-point window: the middle term divides by N − 1
// while the others divide by N. Capture and process both use it, and each stores v(k) one index
// after k (at k + 1 and N − 1 − k); stored prints were taken with exactly this window, so keep
// both the denominator and the shift.
double PrintWindowValue(int k, int N);

}  // namespace dsp::nonoise::detail
