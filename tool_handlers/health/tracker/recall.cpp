#include "health/tracker/recall.hpp"

#include <algorithm>
#include <bit>
#include <span>
#include <utility>

namespace health {

namespace {

constexpr std::size_t least_size = 8;

inline bool is_plain_part(PyObject* part) {
    return PyUnicode_CheckExact(part) || part == Py_None || PyBool_Check(part);
}

/// The parts of a usage key, which is a tuple of that many.
inline std::span<PyObject* const, UsageRecall::parts> parts_of(PyObject* key) {
    return std::span<PyObject* const, UsageRecall::parts>(&PyTuple_GET_ITEM(key, 0), UsageRecall::parts);
}

UsageRecall::Key key_of(PyObject* key) {
    UsageRecall::Key parts;
    std::ranges::copy(parts_of(key), parts.begin());
    return parts;
}

bool is_plain(PyObject* key) {
    return PyTuple_CheckExact(key) && PyTuple_GET_SIZE(key) == UsageRecall::parts &&
           std::ranges::all_of(parts_of(key), is_plain_part);
}

inline std::size_t hash_of(PyObject* part) {
    if (!PyUnicode_CheckExact(part)) {
        return reinterpret_cast<std::uintptr_t>(part) >> 4;
    }
    const Py_hash_t known = reinterpret_cast<PyASCIIObject*>(part)->hash;
    return static_cast<std::size_t>(known != -1 ? known : PyObject_Hash(part));
}

inline std::size_t hash_of(const UsageRecall::Key& key) {
    constexpr std::size_t multiplier = 0x9E3779B97F4A7C15;  // 2^64 over the golden ratio: spreads nearby hashes
    std::size_t hash = 0;
    for (PyObject* part : key) {
        hash = (std::rotl(hash, 29) ^ hash_of(part)) * multiplier;
    }
    return hash ^ (hash >> 32);
}

/// Whether two parts are the same, seen without running Python code.
inline bool is_same(PyObject* left, PyObject* right) {
    return left == right ||
           (PyUnicode_CheckExact(left) && PyUnicode_CheckExact(right) && _PyUnicode_EQ(left, right) != 0);
}

}  // namespace

PyObject* StateRecall::find(PyObject* states, PyObject* name) const {
    return watch_.is_current(states) && PyUnicode_CheckExact(name) ? PyDict_GetItemWithError(states, name) : nullptr;
}

void StateRecall::notice_miss(PyObject* states) {
    if (!watch_.is_current(states) && watch_.is_worth_learning(states)) {
        learn(states);
    }
}

void StateRecall::learn(PyObject* states) {
    watch_ = {};
    if (PyDict_CheckExact(states) && py::has_plain_keys(states)) {
        watch_.set(states);
    }
}

bool StateRecall::is_consistent(PyObject* states) const {
    return !watch_.is_current(states) || py::has_plain_keys(states);
}

void StateRecall::insert(PyObject* states, PyObject* name, PyObject* record) {
    // Only where all keys are plain, and none is this name yet, is it certain that the assignment runs no Python code.
    const bool is_quiet =
        watch_.is_current(states) && PyUnicode_CheckExact(name) && PyDict_GetItemWithError(states, name) == nullptr;
    py::check(PyDict_SetItem(states, name, record));
    if (is_quiet) {
        watch_.set(states);
    }
}

UsageRecall::Entry& UsageRecall::place_of(const Key& key) const {
    const std::size_t mask = size_ - 1;
    std::size_t index = hash_of(key) & mask;
    while (table_[index].key != nullptr && !std::ranges::equal(parts_of(table_[index].key), key, is_same)) {
        index = (index + 1) & mask;
    }
    return table_[index];
}

PyObject* UsageRecall::find(PyObject* usage, const Key& key) const {
    // A part that is not plain equals no part of a remembered key, so it needs no check of its own.
    return watch_.is_current(usage) ? place_of(key).record : nullptr;
}

void UsageRecall::notice_miss(PyObject* usage, PyObject* record_type) {
    if (!watch_.is_current(usage) && watch_.is_worth_learning(usage)) {
        learn(usage, record_type);
    }
}

void UsageRecall::learn(PyObject* usage, PyObject* record_type) {
    forget();
    if (!PyDict_CheckExact(usage) || !reserve(static_cast<std::size_t>(PyDict_GET_SIZE(usage)))) {
        return;
    }
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* record = nullptr;
    while (PyDict_Next(usage, &position, &key, &record) != 0) {
        if (is_plain(key) && reinterpret_cast<PyObject*>(Py_TYPE(record)) == record_type) {
            put(key, record);
        }
    }
    watch_.set(usage);
}

void UsageRecall::insert(PyObject* usage, PyObject* key, PyObject* record) {
    // As for states; that all keys are plain shows in that every one of them is remembered.
    const auto size = static_cast<std::size_t>(PyDict_GET_SIZE(usage));
    const bool is_quiet =
        watch_.is_current(usage) && count_ == size && is_plain(key) && PyDict_GetItemWithError(usage, key) == nullptr;
    py::check(PyDict_SetItem(usage, key, record));
    if (is_quiet && reserve(size + 1)) {
        put(key, record);
        watch_.set(usage);
    }
}

void UsageRecall::forget() {
    PyMem_RawFree(table_);
    *this = {};
}

bool UsageRecall::is_consistent(PyObject* usage) const {
    if (!watch_.is_current(usage)) {
        return true;
    }
    std::size_t found = 0;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* record = nullptr;
    while (PyDict_Next(usage, &position, &key, &record) != 0) {
        if (is_plain(key)) {
            const Entry& place = place_of(key_of(key));
            found += place.key == key && place.record == record ? 1 : 0;
        }
    }
    return found == count_;
}

/// Makes room for so many keys. Without memory the recall forgets everything, which costs time only.
bool UsageRecall::reserve(std::size_t keys) {
    if (table_ != nullptr && keys * 2 <= size_) {
        return true;
    }
    const std::size_t size = std::max(least_size, std::bit_ceil(keys * 2));
    auto* table = static_cast<Entry*>(PyMem_RawCalloc(size, sizeof(Entry)));
    if (table == nullptr) {
        forget();
        return false;
    }
    const std::span old(std::exchange(table_, table), std::exchange(size_, size));
    count_ = 0;
    for (const Entry& entry : old) {
        if (entry.key != nullptr) {
            put(entry.key, entry.record);
        }
    }
    PyMem_RawFree(old.data());
    return true;
}

void UsageRecall::put(PyObject* key, PyObject* record) {
    Entry& place = place_of(key_of(key));
    count_ += place.key == nullptr ? 1 : 0;
    place = {.key = key, .record = record};
}

}  // namespace health
