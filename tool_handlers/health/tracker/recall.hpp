// What the tracker remembers of its own two mappings, so that a known key is neither rebuilt nor looked up anew.
//
// A recall holds, for every plain key of a dictionary, the record it leads to, all borrowed from the dictionary. The
// dictionary is open to Python code; its version tells whether anything in it was changed since, and then the recall
// is not asked until it has been learnt anew. So an answer is always what a look-up would give, and it is given
// without running Python code, whatever else the dictionary holds.
//
// A key is plain when each of its parts is exactly a str, or None, or a bool.
//
// Memory of zeros is an empty recall.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace health {

/// `parts`: 1 for keys that are a part themselves, else the length of the tuples that are the keys.
template <std::size_t parts>
class Recall {
public:
    using Key = std::array<PyObject*, parts>;

    /// The record under a key, or nullptr if it is not known. Runs no Python code.
    [[nodiscard]] PyObject* find(PyObject* mapping, const Key& key) const;

    /// Told of every question that went unanswered, with the mapping it was about: learns the mapping anew where it
    /// has changed, once that is worth the walk over it. Values that are not exactly of `record_type` are left out.
    void notice_miss(PyObject* mapping, PyObject* record_type);

    /// Learns a mapping. Runs no Python code.
    void learn(PyObject* mapping, PyObject* record_type);

    /// `mapping[key] = record`, remembered. Throws what the assignment raises; runs Python code only if `key`, or a
    /// key of the same hash, does.
    void insert(PyObject* mapping, PyObject* key, PyObject* record);

    /// Forgets everything and gives the memory back.
    void forget();

    /// Whether every answer it would give now is what the mapping holds. For checks.
    [[nodiscard]] bool is_consistent(PyObject* mapping) const;

private:
    struct Entry {
        PyObject* key;  // NULL in a free place
        PyObject* record;
    };

    [[nodiscard]] bool is_current(PyObject* mapping) const;
    [[nodiscard]] Entry& place_of(const Key& key) const;
    [[nodiscard]] bool reserve(std::size_t keys);
    void put(PyObject* key, PyObject* record);

    PyObject* mapping_;  // compared only, never followed
    std::uint64_t version_;
    Entry* table_;  // open addressing; a power of two, at most half of it in use
    std::size_t size_;
    std::size_t count_;
    std::size_t misses_;
};

using StateRecall = Recall<1>;
using UsageRecall = Recall<4>;

extern template class Recall<1>;
extern template class Recall<4>;

}  // namespace health
