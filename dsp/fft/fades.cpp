#include "dsp/fades.h"

#include <cmath>
#include <map>

namespace dsp {

namespace {

// Both fades are evaluated in single precision with these float constants (pi and e rounded to
// float); a fade drawn by a host must match the one applied to the audio.
constexpr float kPiF = 3.1415927f;
constexpr float kEF = 2.7182817f;

constexpr int kMinSetting = -100;
constexpr int kMaxSetting = 100;
constexpr int kSettingCount = kMaxSetting - kMinSetting + 1;

// Opposite settings for a constant-power crossfade, for settings -100, -99, ... 100. These are
// tabulated data, not recomputed: a crossfade must pair the same settings as every stored project
// does. Each table is nearly an involution (the opposite of the opposite is the setting again,
// within rounding), which is what the pairing means.
// clang-format off
constexpr int kCosineOpposite[kSettingCount] = {
    86,   85,   85,   85,   84,   84,   84,   83,   83,   83,     // -100
    82,   82,   81,   81,   81,   80,   80,   80,   79,   79,     // -90
    79,   78,   78,   78,   77,   77,   76,   76,   76,   75,     // -80
    75,   74,   74,   74,   73,   73,   72,   72,   72,   71,     // -70
    71,   70,   70,   69,   69,   68,   68,   68,   67,   67,     // -60
    66,   66,   65,   65,   64,   64,   63,   63,   62,   62,     // -50
    61,   61,   60,   60,   59,   59,   58,   58,   57,   56,     // -40
    56,   55,   55,   54,   54,   53,   52,   52,   51,   51,     // -30
    50,   49,   49,   48,   47,   47,   46,   45,   45,   44,     // -20
    43,   43,   42,   41,   41,   40,   39,   38,   38,   37,     // -10
    36,   35,   34,   34,   33,   32,   31,   30,   29,   28,     // 0
    28,   27,   26,   25,   24,   23,   22,   21,   20,   19,     // 10
    18,   17,   16,   15,   14,   13,   12,   11,   10,   9,      // 20
    7,    6,    5,    4,    3,    1,    0,    -1,   -2,   -4,     // 30
    -5,   -6,   -8,   -9,   -11,  -12,  -14,  -15,  -17,  -18,    // 40
    -20,  -21,  -23,  -25,  -26,  -28,  -30,  -32,  -33,  -35,    // 50
    -37,  -39,  -41,  -43,  -45,  -47,  -49,  -51,  -54,  -56,    // 60
    -58,  -61,  -63,  -65,  -68,  -70,  -73,  -75,  -78,  -81,    // 70
    -84,  -87,  -89,  -92,  -95,  -97,  -100, -100, -100, -100,   // 80
    -100, -100, -100, -100, -100, -100, -100, -100, -100, -100,   // 90
    -100,                                                         // 100
};

constexpr int kLogOpposite[kSettingCount] = {
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -100
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -90
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -80
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -70
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -60
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -50
    100,  100,  100,  100,  100,  100,  100,  100,  100,  100,    // -40
    100,  100,  100,  100,  100,  100,  97,   94,   92,   89,     // -30
    86,   84,   81,   79,   76,   74,   71,   69,   67,   65,     // -20
    62,   60,   58,   56,   54,   53,   51,   49,   47,   45,     // -10
    44,   42,   40,   39,   37,   36,   34,   33,   32,   30,     // 0
    // Settings 18 and 19 are each other's opposite (19 and 18); kept exactly as tabulated.
    29,   28,   26,   25,   24,   23,   22,   20,   19,   18,     // 10
    17,   17,   16,   15,   14,   13,   12,   12,   11,   10,     // 20
    9,    8,    8,    7,    6,    6,    5,    4,    4,    3,      // 30
    2,    2,    1,    0,    0,    -1,   -1,   -2,   -3,   -3,     // 40
    -4,   -4,   -5,   -5,   -6,   -6,   -7,   -7,   -8,   -8,     // 50
    -9,   -9,   -10,  -10,  -11,  -11,  -12,  -12,  -13,  -13,    // 60
    -13,  -14,  -14,  -15,  -15,  -16,  -16,  -16,  -17,  -17,    // 70
    -18,  -18,  -18,  -19,  -19,  -20,  -20,  -20,  -21,  -21,    // 80
    -21,  -22,  -22,  -23,  -23,  -23,  -24,  -24,  -24,  -25,    // 90
    -25,                                                          // 100
};
// clang-format on

std::map<int, int> BuildOppositeMap(const int (&values)[kSettingCount]) {
    std::map<int, int> map;
    for (int k = 0; k < kSettingCount; ++k)
        map.emplace(kMinSetting + k, values[k]);
    return map;
}

int LookUp(const std::map<int, int>& map, int setting) {
    const auto it = map.find(setting);
    return it != map.end() ? it->second : 0;
}

}  // namespace

float CalculateCosineFadeValue(float x, float shape) {
    return (1.0f - std::cos(kPiF * std::pow(x, shape))) / 2.0f;
}

float CalculateLogFadeValue(float x, float shape) {
    if (shape == 0.0f) return x;
    const float a = std::pow(kEF, -shape);
    const float b = std::pow(kEF, -shape * x);
    return 1.0f - (b - a) / (1.0f - a);
}

float GetCosineVerticalModifier(float v) {
    return std::pow(10.0f, v / -100.0f);
}

float GetLogVerticalModifier(float v) {
    return v / 10.0f;
}

// The maps are built on the first call; the function-local statics make that first call safe from
// any number of threads at once.
int GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(int shape) {
    static const std::map<int, int> opposite = BuildOppositeMap(kCosineOpposite);
    return LookUp(opposite, shape);
}

int GetOppositeFadeShapeValForConstantPowerCrossfade_Log(int shape) {
    static const std::map<int, int> opposite = BuildOppositeMap(kLogOpposite);
    return LookUp(opposite, shape);
}

}  // namespace dsp
