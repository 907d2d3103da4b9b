// Memory for the module's own containers.
//
// It comes from the runtime's allocator, so that the runtime's tools see it and failures can be injected, and from
// its raw domain, which needs no GIL: a container may be freed by a thread that a finalising interpreter ends.
#pragma once

#include <Python.h>

#include <cstddef>
#include <limits>
#include <new>
#include <string>
#include <vector>

namespace health::py {

template <class T>
struct Allocator {
    using value_type = T;

    Allocator() = default;
    template <class U>
    Allocator(const Allocator<U>& /*other*/) {}  // NOLINT(google-explicit-constructor): as allocators convert

    T* allocate(std::size_t count) {
        if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) {
            throw std::bad_alloc();
        }
        void* memory = PyMem_RawMalloc(count * sizeof(T));
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(memory);
    }

    void deallocate(T* memory, std::size_t /*count*/) { PyMem_RawFree(memory); }

    friend bool operator==(const Allocator& /*left*/, const Allocator& /*right*/) { return true; }
};

template <class T>
using Vector = std::vector<T, Allocator<T>>;

using Text = std::basic_string<char, std::char_traits<char>, Allocator<char>>;

}  // namespace health::py
