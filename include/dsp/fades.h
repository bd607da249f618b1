#pragma once
// Fade curves for fade-in/fade-out envelopes and constant-power crossfades. Positions run 0 ... 1
// along the fade; every curve goes from 0 to 1.

#include "dsp/kestadsp_export.h"

namespace dsp {

// (1 - cos(pi * x^shape)) / 2 in single precision; shape 1 is the raised-cosine S-curve.
KESTADSP_API float CalculateCosineFadeValue(float x, float shape);
// 1 - (e^(-m x) - e^(-m)) / (1 - e^(-m)) in single precision; m = 0 is the straight line.
KESTADSP_API float CalculateLogFadeValue(float x, float shape);
// A user "vertical" curve setting (-100 ... 100) to the cosine fade's exponent: 10^(v / -100).
KESTADSP_API float GetCosineVerticalModifier(float v);
// The setting to the log fade's shape: v / 10.
KESTADSP_API float GetLogVerticalModifier(float v);
// For a curve setting in -100 ... 100, the setting the opposite fade of a crossfade uses so the two
// keep constant power; 0 outside that range.
KESTADSP_API int GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(int shape);
KESTADSP_API int GetOppositeFadeShapeValForConstantPowerCrossfade_Log(int shape);

}  // namespace dsp
