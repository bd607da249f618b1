#include "record_array_sizes.h"

#ifndef NDEBUG

#include <mutex>
#include <unordered_map>

namespace dsp::detail {

namespace {

// Distinct objects may live on distinct threads, so the table is guarded.
struct Lengths {
    std::mutex lock;
    std::unordered_map<const void*, std::size_t> of;
};

Lengths& Table() {
    static Lengths table;
    return table;
}

}  // namespace

void NoteArrayLength(const void* array, std::size_t length) {
    if (array == nullptr) return;
    Lengths& t = Table();
    const std::lock_guard<std::mutex> hold(t.lock);
    t.of[array] = length;
}

void ForgetArrayLength(const void* array) {
    if (array == nullptr) return;
    Lengths& t = Table();
    const std::lock_guard<std::mutex> hold(t.lock);
    t.of.erase(array);
}

bool ArrayHolds(const void* array, std::size_t length) {
    if (array == nullptr) return true;
    Lengths& t = Table();
    const std::lock_guard<std::mutex> hold(t.lock);
    const auto known = t.of.find(array);
    return known == t.of.end() || known->second >= length;
}

}  // namespace dsp::detail

#endif
