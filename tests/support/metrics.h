#pragma once
// The measurements tests and benchmarks use are the library's own measurement kit (the one its
// self-checks use), under the test namespace's names.

#include "dsp/check_measures.h"

namespace kesta::test {

using dsp::checks::LevelAt;
using dsp::checks::MaxAbsDiff;
using dsp::checks::Peak;
using dsp::checks::Rms;
using dsp::checks::ToDb;

}  // namespace kesta::test
