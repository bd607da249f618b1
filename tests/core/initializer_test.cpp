// The one-time registration: however many Initializer objects initialise, the suite is registered
// once under the library's name, and the registered suite runs and passes.

#include <gtest/gtest.h>

#include "dsp/check_registry.h"
#include "dsp/initializer.h"

namespace {

TEST(Initializer, FlagFollowsInitializeAndTerminate) {
    dsp::Initializer init;
    EXPECT_FALSE(init.IsInitialized());
    init.Initialize();
    EXPECT_TRUE(init.IsInitialized());
    init.Terminate();
    EXPECT_FALSE(init.IsInitialized());
}

TEST(Initializer, RegistersTheSuiteOnceUnderTheLibraryName) {
    dsp::Initializer first, second;
    first.Initialize();
    first.Initialize();
    second.Initialize();
    const auto names = dsp::checks::TestRegistry::RegisteredNames();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0], u"KestaDSP");
    EXPECT_EQ(dsp::checks::AsciiToUTF16("KestaDSP"), u"KestaDSP");
}

TEST(Initializer, RegisteredSuiteRunsAndPasses) {
    dsp::Initializer().Initialize();
    auto suite = dsp::checks::TestRegistry::Create(u"KestaDSP");
    ASSERT_NE(suite, nullptr);
    ASSERT_GT(suite->Size(), 0u);
    for (const auto& result : suite->Run())
        EXPECT_TRUE(result.outcome.passed) << result.family << "/" << result.name << ": " << result.outcome.detail;
    EXPECT_EQ(dsp::checks::TestRegistry::Create(u"NoSuchSuite"), nullptr);
}

TEST(CheckSuite, ThrowingCheckIsReportedAsFailed) {
    dsp::checks::CheckSuite suite;
    suite.Add("demo", "throws", []() -> dsp::checks::CheckOutcome { throw std::runtime_error("boom"); });
    suite.Add("demo", "passes", [] { return dsp::checks::CheckOutcome{true, "ok"}; });
    const auto results = suite.Run();
    ASSERT_EQ(results.size(), 2u);
    EXPECT_FALSE(results[0].outcome.passed);
    EXPECT_NE(results[0].outcome.detail.find("boom"), std::string::npos);
    EXPECT_TRUE(results[1].outcome.passed);
}

}  // namespace
