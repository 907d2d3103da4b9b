#include "health/tracker/recall.hpp"

#include <algorithm>
#include <bit>
#include <span>

#include "health/python/dict.hpp"

namespace health {

namespace {

constexpr std::size_t least_size = 8;

inline bool is_plain_part(PyObject* part) {
    return PyUnicode_CheckExact(part) || part == Py_None || PyBool_Check(part);
}

/// The parts of a key that is known to have that many.
template <std::size_t parts>
inline std::span<PyObject* const, parts> parts_of(PyObject* const& key) {
    if constexpr (parts == 1) {
        return std::span<PyObject* const, 1>(&key, 1);
    } else {
        return std::span<PyObject* const, parts>(&PyTuple_GET_ITEM(key, 0), parts);
    }
}

/// Whether a key of a mapping is plain.
template <std::size_t parts>
bool is_plain(PyObject* key) {
    if constexpr (parts > 1) {
        if (!PyTuple_CheckExact(key) || PyTuple_GET_SIZE(key) != parts) {
            return false;
        }
    }
    return std::ranges::all_of(parts_of<parts>(key), is_plain_part);
}

inline std::size_t hash_of(PyObject* part) {
    if (!PyUnicode_CheckExact(part)) {
        return reinterpret_cast<std::uintptr_t>(part) >> 4;
    }
    const Py_hash_t known = reinterpret_cast<PyASCIIObject*>(part)->hash;
    return static_cast<std::size_t>(known != -1 ? known : PyObject_Hash(part));
}

template <std::size_t parts>
inline std::size_t hash_of(const std::array<PyObject*, parts>& key) {
    constexpr std::size_t multiplier = 0x9E3779B97F4A7C15;  // 2^64 over the golden ratio: spreads nearby hashes
    std::size_t hash = 0;
    for (PyObject* part : key) {
        hash = (std::rotl(hash, 29) ^ hash_of(part)) * multiplier;
    }
    return hash ^ (hash >> 32);
}

inline bool is_same(PyObject* left, PyObject* right) {
    return left == right ||
           (PyUnicode_CheckExact(left) && PyUnicode_CheckExact(right) && _PyUnicode_EQ(left, right) != 0);
}

}  // namespace

template <std::size_t parts>
bool Recall<parts>::is_current(PyObject* mapping) const {
    return mapping == mapping_ && mapping != nullptr && py::version_of(mapping) == version_;
}

template <std::size_t parts>
typename Recall<parts>::Entry& Recall<parts>::place_of(const Key& key) const {
    const std::size_t mask = size_ - 1;
    std::size_t index = hash_of(key) & mask;
    while (table_[index].key != nullptr && !std::ranges::equal(parts_of<parts>(table_[index].key), key, is_same)) {
        index = (index + 1) & mask;
    }
    return table_[index];
}

template <std::size_t parts>
PyObject* Recall<parts>::find(PyObject* mapping, const Key& key) const {
    if (!is_current(mapping) || !std::ranges::all_of(key, is_plain_part)) {
        return nullptr;
    }
    return place_of(key).record;
}

template <std::size_t parts>
void Recall<parts>::notice_miss(PyObject* mapping, PyObject* record_type) {
    // An unknown key of a current mapping is news to the mapping, too. A mapping that others keep changing is walked
    // over only once for so many questions that the walk is a fixed share of the cost of each.
    constexpr std::size_t keys_per_miss = 8;
    if (!is_current(mapping) && ++misses_ * keys_per_miss > static_cast<std::size_t>(PyDict_GET_SIZE(mapping))) {
        learn(mapping, record_type);
    }
}

template <std::size_t parts>
void Recall<parts>::learn(PyObject* mapping, PyObject* record_type) {
    forget();
    if (!PyDict_CheckExact(mapping) || !reserve(static_cast<std::size_t>(PyDict_GET_SIZE(mapping)))) {
        return;
    }
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* record = nullptr;
    while (PyDict_Next(mapping, &position, &key, &record) != 0) {
        if (is_plain<parts>(key) && reinterpret_cast<PyObject*>(Py_TYPE(record)) == record_type) {
            put(key, record);
        }
    }
    mapping_ = mapping;
    version_ = py::version_of(mapping);
}

template <std::size_t parts>
void Recall<parts>::insert(PyObject* mapping, PyObject* key, PyObject* record) {
    // Only where all keys are plain is it certain that the assignment runs no Python code that changes more.
    const bool is_complete = is_current(mapping) && count_ == static_cast<std::size_t>(PyDict_GET_SIZE(mapping)) &&
                             is_plain<parts>(key);
    py::check(PyDict_SetItem(mapping, key, record));
    if (!is_complete || !reserve(count_ + 1)) {
        return;
    }
    put(key, record);
    version_ = py::version_of(mapping);
}

template <std::size_t parts>
void Recall<parts>::forget() {
    PyMem_RawFree(table_);
    *this = {};
}

template <std::size_t parts>
bool Recall<parts>::is_consistent(PyObject* mapping) const {
    return !is_current(mapping) || std::ranges::all_of(std::span(table_, size_), [&](const Entry& entry) {
        return entry.key == nullptr || PyDict_GetItemWithError(mapping, entry.key) == entry.record;
    });
}

/// Makes room for so many keys. Without memory the recall forgets everything, which costs time only.
template <std::size_t parts>
bool Recall<parts>::reserve(std::size_t keys) {
    if (table_ != nullptr && keys * 2 <= size_) {
        return true;
    }
    const std::size_t size = std::max(least_size, std::bit_ceil(keys * 2));
    auto* table = static_cast<Entry*>(PyMem_RawCalloc(size, sizeof(Entry)));
    if (table == nullptr) {
        forget();
        return false;
    }
    const std::span old(table_, size_);
    PyObject* mapping = mapping_;
    const std::uint64_t version = version_;
    *this = {};
    table_ = table;
    size_ = size;
    mapping_ = mapping;
    version_ = version;
    for (const Entry& entry : old) {
        if (entry.key != nullptr) {
            put(entry.key, entry.record);
        }
    }
    PyMem_RawFree(old.data());
    return true;
}

template <std::size_t parts>
void Recall<parts>::put(PyObject* key, PyObject* record) {
    Key parts_of_key;
    std::ranges::copy(parts_of<parts>(key), parts_of_key.begin());
    Entry& place = place_of(parts_of_key);
    count_ += place.key == nullptr ? 1 : 0;
    place = {.key = key, .record = record};
}

template class Recall<1>;
template class Recall<4>;

}  // namespace health
