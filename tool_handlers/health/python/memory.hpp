// Memory for the module's own containers.
//
// It comes from the runtime's allocator, so that the runtime's tools see it and failures can be injected, and from
// its raw domain, which needs no GIL: a container may be freed by a thread that a finalising interpreter ends.
#pragma once

#include <Python.h>

#include <cstddef>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace health::py {

template <class T>
struct Allocator {
    using value_type = T;

    Allocator() = default;
    template <class U>
    Allocator(const Allocator<U>& /*other*/) {}  // NOLINT(google-explicit-constructor): as allocators convert

    T* allocate(std::size_t count) {
        void* memory = PyMem_RawMalloc(count * sizeof(T));  // NOLINT(bugprone-sizeof-expression): T may be a pointer
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
    void push_back(T&& item) { items_.push_back(std::move(item)); }
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
