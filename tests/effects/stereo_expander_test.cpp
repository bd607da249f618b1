// Stereo expander: the matrix for the documented settings, read off as the responses to a left-only
// and a right-only frame; mono copied through; extra channels untouched; the parameter rules.

#include "dsp/stereo_expander.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using dsp::StereoExpanderDSP;

// (left', right') for (1, 0) and for (0, 1): the matrix columns m0 m1 and m2 m3.
std::vector<float> Responses(StereoExpanderDSP& e) {
    std::vector<float> left = {1.0f, 0.0f}, right = {0.0f, 1.0f};
    float* io[2] = {left.data(), right.data()};
    e.Process(io, io, 2);  // in place
    return {left[0], right[0], left[1], right[1]};
}

TEST(StereoExpander, SettingsGiveTheirMatrices) {
    const double r = std::sqrt(0.5);
    struct Case {
        float center, width;
        double m0, m1, m2, m3;
    };
    for (const Case& c :
         {Case{0, 100, 1, 0, 0, 1}, Case{0, 0, 0.5, 0.5, 0.5, 0.5}, Case{0, 300, 2, -1, -1, 2},
          Case{100, 100, r, r, -r, r}, Case{-100, 100, r, -r, r, r}, Case{0, 200, 1.5, -0.5, -0.5, 1.5}}) {
        StereoExpanderDSP e;
        e.SetParameter(StereoExpanderDSP::kCenter, c.center);
        e.SetParameter(StereoExpanderDSP::kWidth, c.width);
        const std::vector<float> m = Responses(e);
        const double expected[4] = {c.m0, c.m1, c.m2, c.m3};
        for (int i = 0; i < 4; ++i)
            EXPECT_NEAR(m[static_cast<std::size_t>(i)], expected[i], 1e-6)
                << "centre " << c.center << " width " << c.width << " m" << i;
    }
}

TEST(StereoExpander, MonoIsCopiedAndExtraChannelsAreLeftAlone) {
    StereoExpanderDSP e;
    e.SetParameter(StereoExpanderDSP::kWidth, 0.0f);
    e.SetChannels(1);
    std::vector<float> in = {0.25f, -0.5f, 1.0f}, out(3, 9.0f);
    float* i1[1] = {in.data()};
    float* o1[1] = {out.data()};
    e.Process(i1, o1, 3);
    EXPECT_EQ(out, in);

    e.SetChannels(3);
    std::vector<float> a = {1.0f}, b = {0.0f}, c = {0.75f}, oc = {9.0f};
    float* i3[3] = {a.data(), b.data(), c.data()};
    std::vector<float> oa(1), ob(1);
    float* o3[3] = {oa.data(), ob.data(), oc.data()};
    e.Process(i3, o3, 1);
    EXPECT_FLOAT_EQ(oa[0], 0.5f);
    EXPECT_FLOAT_EQ(ob[0], 0.5f);
    EXPECT_EQ(oc[0], 9.0f);  // a third channel is not written
}

TEST(StereoExpander, ParametersAreStoredAsGivenAndOutsideIndicesIgnored) {
    StereoExpanderDSP e;
    float lo = -1.0f, hi = -1.0f;
    e.GetBounds(StereoExpanderDSP::kWidth, lo, hi);
    EXPECT_EQ(lo, 0.0f);
    EXPECT_EQ(hi, 300.0f);
    e.GetBounds(2, lo, hi);
    EXPECT_EQ(hi, 300.0f);
    e.SetParameter(StereoExpanderDSP::kWidth, 500.0f);  // no range check
    e.SetParameter(2, 50.0f);
    e.SetParameter(-1, 50.0f);
    EXPECT_EQ(e.GetParameter(StereoExpanderDSP::kWidth), 500.0f);
    EXPECT_EQ(e.GetParameter(StereoExpanderDSP::kCenter), 0.0f);
    EXPECT_EQ(e.GetParameter(2), 0.0f);
    EXPECT_NEAR(Responses(e)[0], 3.0, 1e-6);  // (1 + 5)(2) / 4
    e.Resume();
    EXPECT_TRUE(e.IsRunning());
    EXPECT_TRUE(e.ProcessFinished());
    e.SetDuration(1234567890123LL);
    EXPECT_EQ(e.GetDuration(), 1234567890123.0);
}

}  // namespace
