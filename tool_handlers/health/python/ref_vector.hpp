// A vector of what holds references.
#pragma once

#include <utility>

#include "health/python/memory.hpp"

namespace health::py {

/// As `Vector`, but that its items die in a destructor that lets a forced unwind pass, which the standard vector's does
/// not: dropping a last reference may run Python code, and so be where a finalising interpreter ends this thread.
template <class T>
class RefVector : public Vector<T> {
public:
    RefVector() = default;
    explicit RefVector(std::size_t size) : Vector<T>(size) {}
    RefVector(const RefVector&) = delete;
    RefVector& operator=(const RefVector&) = delete;
    RefVector(RefVector&&) = default;
    RefVector& operator=(RefVector&& other) {
        this->swap(other);
        return *this;
    }
    ~RefVector() noexcept(false) {
        for (T& item : *this) {
            const T dropped = std::move(item);
        }
    }
};

}  // namespace health::py
