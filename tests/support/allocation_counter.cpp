// Replacement allocation functions that count. The pointer handed out by the aligned forms sits
// in a block from malloc, with the malloc pointer stored just below it, so every form frees with
// free() and the counting does not depend on the platform's aligned allocator.

#include "support/allocation_counter.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {
std::atomic<bool> gCounting{false};
std::atomic<long long> gAllocations{0};
void NoteAllocation() {
    if (gCounting.load(std::memory_order_relaxed)) gAllocations.fetch_add(1, std::memory_order_relaxed);
}

void* PlainAlloc(std::size_t n) {
    NoteAllocation();
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}

// Over-allocates and keeps the malloc pointer just below the aligned block.
void* AlignedAlloc(std::size_t n, std::align_val_t al) {
    NoteAllocation();
    const std::size_t a = std::max(static_cast<std::size_t>(al), sizeof(void*));
    void* raw = std::malloc(n + a + sizeof(void*));
    if (raw == nullptr) throw std::bad_alloc();
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(raw) + sizeof(void*);
    void* p = reinterpret_cast<void*>((base + a - 1) & ~(static_cast<std::uintptr_t>(a) - 1));
    static_cast<void**>(p)[-1] = raw;
    return p;
}
void AlignedFree(void* p) {
    if (p != nullptr) std::free(static_cast<void**>(p)[-1]);
}
}  // namespace

void* operator new(std::size_t n) {
    return PlainAlloc(n);
}
void* operator new[](std::size_t n) {
    return PlainAlloc(n);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    try {
        return PlainAlloc(n);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    try {
        return PlainAlloc(n);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void* operator new(std::size_t n, std::align_val_t al) {
    return AlignedAlloc(n, al);
}
void* operator new[](std::size_t n, std::align_val_t al) {
    return AlignedAlloc(n, al);
}
void operator delete(void* p, std::align_val_t) noexcept {
    AlignedFree(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    AlignedFree(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    AlignedFree(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    AlignedFree(p);
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define KESTA_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KESTA_TEST_SANITIZED 1
#endif

#if defined(__GLIBC__) && !defined(KESTA_TEST_SANITIZED)
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* malloc(std::size_t n) {
    NoteAllocation();
    return __libc_malloc(n);
}
void* calloc(std::size_t n, std::size_t size) {
    NoteAllocation();
    return __libc_calloc(n, size);
}
void* realloc(void* p, std::size_t n) {
    NoteAllocation();
    return __libc_realloc(p, n);
}
}
#endif

namespace kesta::test {

AllocationCounter::AllocationCounter() {
    gAllocations = 0;
    gCounting = true;
}

AllocationCounter::~AllocationCounter() {
    gCounting = false;
}

long long AllocationCounter::Count() const {
    return gAllocations.load();
}

}  // namespace kesta::test
