// A vector of what holds references.
#pragma once

#include <cstddef>
#include <utility>

#include "health/python/memory.hpp"

namespace health::py {

/// Items whose destructors may run Python code, and so be where a finalising interpreter ends this thread by a forced
/// unwind. A standard vector's destructor is `noexcept` and would abort the process then; so the items die here.
template <class T>
class RefVector {
public:
    RefVector() = default;
    explicit RefVector(std::size_t size) : items_(size) {}
    RefVector(const RefVector&) = delete;
    RefVector& operator=(const RefVector&) = delete;
    RefVector(RefVector&&) = default;
    RefVector& operator=(RefVector&& other) {
        items_.swap(other.items_);
        return *this;
    }
    ~RefVector() noexcept(false) {
        for (T& item : items_) {
            const T dropped = std::move(item);
        }
    }

    void reserve(std::size_t size) { items_.reserve(size); }
    void push_back(T item) { items_.push_back(std::move(item)); }
    [[nodiscard]] std::size_t size() const { return items_.size(); }
    [[nodiscard]] T& back() { return items_.back(); }
    T& operator[](std::size_t index) { return items_[index]; }
    const T& operator[](std::size_t index) const { return items_[index]; }
    auto begin() { return items_.begin(); }
    auto end() { return items_.end(); }
    [[nodiscard]] auto begin() const { return items_.begin(); }
    [[nodiscard]] auto end() const { return items_.end(); }

private:
    Vector<T> items_;
};

}  // namespace health::py
