#pragma once
// Debug builds: the lengths of the arrays the record functions allocate, so that a record whose
// declared shape (channels, fftSize) has outgrown its arrays is caught by an assert before it is
// read or written. Release builds keep nothing and every query answers "fits".
//
// Arrays a host allocated itself are unknown here and taken on trust.

#include <cstddef>

namespace dsp::detail {

#ifndef NDEBUG
void NoteArrayLength(const void* array, std::size_t length);
void ForgetArrayLength(const void* array);
// False only when `array` is known and shorter than `length`.
bool ArrayHolds(const void* array, std::size_t length);
#else
inline void NoteArrayLength(const void*, std::size_t) {}
inline void ForgetArrayLength(const void*) {}
inline bool ArrayHolds(const void*, std::size_t) {
    return true;
}
#endif

// Whether every row of a `rows` x `length` table fits (the table itself and each row).
template <typename T>
bool RowsHold(T* const* table, std::size_t rows, std::size_t length) {
    if (table == nullptr) return true;
    if (!ArrayHolds(table, rows)) return false;
    for (std::size_t r = 0; r < rows; ++r)
        if (!ArrayHolds(table[r], length)) return false;
    return true;
}

}  // namespace dsp::detail
