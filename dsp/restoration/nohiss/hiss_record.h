#pragma once
// Record checks shared by the family's functions and classes (not exported).

#include "dsp/nohiss.h"

namespace dsp::nohiss::record_checks {

// Whether AllocateArrays gives the record arrays: 1 ... kMaxChannels channels, 1 ... kMaxFftSize bins.
bool ValidShape(const NOHISS* record);
// Debug builds: whether the arrays the library allocated hold `channels` rows of `n` (arrays a host
// made are taken on trust). Release builds: always true.
bool ArraysHold(const NOHISS* record, int channels, int n);

}  // namespace dsp::nohiss::record_checks
