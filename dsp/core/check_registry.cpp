#include "dsp/check_registry.h"

#include <chrono>
#include <exception>
#include <map>
#include <mutex>

namespace dsp::checks {

void CheckSuite::Add(std::string family, std::string name, CheckFunction check) {
    mChecks.push_back({std::move(family), std::move(name), std::move(check)});
}

std::vector<CheckResult> CheckSuite::Run() const {
    std::vector<CheckResult> results;
    results.reserve(mChecks.size());
    for (const Entry& entry : mChecks) {
        CheckResult result{entry.family, entry.name, {}, 0.0};
        const auto begin = std::chrono::steady_clock::now();
        try {
            result.outcome = entry.check();
        } catch (const std::exception& e) {
            result.outcome = {false, std::string("threw: ") + e.what()};
        } catch (...) {
            result.outcome = {false, "threw a non-standard exception"};
        }
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        results.push_back(std::move(result));
    }
    return results;
}

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::u16string, SuiteFactory> factories;
};

Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

}  // namespace

void TestRegistry::RegisterTest(const std::u16string& name, SuiteFactory factory) {
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.factories[name] = factory;
}

std::vector<std::u16string> TestRegistry::RegisteredNames() {
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    std::vector<std::u16string> names;
    for (const auto& [name, factory] : registry.factories)
        names.push_back(name);
    return names;
}

std::unique_ptr<CheckSuite> TestRegistry::Create(const std::u16string& name) {
    SuiteFactory factory = nullptr;
    {
        Registry& registry = TheRegistry();
        std::lock_guard lock(registry.mutex);
        auto it = registry.factories.find(name);
        if (it != registry.factories.end()) factory = it->second;
    }
    return factory != nullptr ? factory() : nullptr;
}

std::u16string AsciiToUTF16(const char* ascii) {
    std::u16string out;
    for (const char* p = ascii; *p != '\0'; ++p)
        out.push_back(static_cast<char16_t>(static_cast<unsigned char>(*p) & 0x7F));
    return out;
}

}  // namespace dsp::checks
