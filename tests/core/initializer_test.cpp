// The one-time registration: however many Initializer objects initialise, the suite is registered
// once under the library's name and can be created by it.

#include "dsp/initializer.h"

#include <gtest/gtest.h>

#include "dsp/check_registry.h"

namespace {

TEST(Initializer, RegistersTheSuiteOnce) {
    dsp::Initializer first, second;
    EXPECT_FALSE(first.IsInitialized());
    first.Initialize();
    first.Initialize();
    second.Initialize();
    EXPECT_TRUE(first.IsInitialized());
    second.Terminate();
    EXPECT_FALSE(second.IsInitialized());
    const auto names = dsp::checks::TestRegistry::RegisteredNames();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0], u"KestaDSP");

    auto suite = dsp::checks::TestRegistry::Create(u"KestaDSP");
    ASSERT_NE(suite, nullptr);
    // Every registered check passing is the selfcheck command's test.
    EXPECT_GT(suite->Size(), 0u);
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
