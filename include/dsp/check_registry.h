#pragma once
// The built-in self-check suite and the registry it is published in. Each class family contributes
// numeric checks of its own classes (a check computes something with the library and compares it
// with an independent expectation); Initializer::Initialize registers the whole suite once, under
// the library's name, and a host (such as `kesta selfcheck`) creates it from the registry and runs it.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dsp/kestadsp_export.h"

namespace dsp::checks {

struct CheckOutcome {
    bool passed = false;
    std::string detail;  // what was measured against what bound, for the report
};

struct CheckResult {
    std::string family;
    std::string name;
    CheckOutcome outcome;
    double seconds = 0.0;
};

class KESTADSP_API CheckSuite {
public:
    using CheckFunction = std::function<CheckOutcome()>;

    void Add(std::string family, std::string name, CheckFunction check);
    std::size_t Size() const { return mChecks.size(); }
    // Runs every check in registration order; a check that throws is reported as failed.
    std::vector<CheckResult> Run() const;

private:
    struct Entry {
        std::string family;
        std::string name;
        CheckFunction check;
    };
    std::vector<Entry> mChecks;
};

using SuiteFactory = std::unique_ptr<CheckSuite> (*)();

// Process-wide registry, name -> suite factory.
class KESTADSP_API TestRegistry {
public:
    static void RegisterTest(const std::u16string& name, SuiteFactory factory);
    static std::vector<std::u16string> RegisteredNames();
    // Null when nothing is registered under the name.
    static std::unique_ptr<CheckSuite> Create(const std::u16string& name);
};

KESTADSP_API std::u16string AsciiToUTF16(const char* ascii);

// Builds the library's suite (every family's checks); this is what Initializer registers.
KESTADSP_API std::unique_ptr<CheckSuite> CreateLibrarySuite();

}  // namespace dsp::checks
