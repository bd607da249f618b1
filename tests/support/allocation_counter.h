#pragma once
// Counts heap allocations, so a test can assert that a stretch of code (a transform, a Process
// call) made none. Linking this file replaces the program's global operator new family (and, on
// glibc outside the sanitizers, malloc/calloc/realloc) with counting forms; only allocations made
// while an AllocationCounter is alive are counted.

namespace kesta::test {

class AllocationCounter {
public:
    AllocationCounter();
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations since construction.
    long long Count() const;
};

}  // namespace kesta::test
