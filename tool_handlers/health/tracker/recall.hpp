// What the tracker remembers of its own two mappings, so that a known key is found without running Python code, and a
// usage key without being built.
//
// Both mappings are dictionaries that Python code can see and change. A dictionary's version tells whether anything in
// it was changed; what was learnt of it holds for that version only. So an answer is always what a look-up would give.
// A mapping that others keep changing is learnt anew only once for so many unanswered questions that the walk over it
// is a fixed share of the cost of each.
//
// A key, or a part of one, is plain when it is exactly a str, or None or a bool within a usage key: comparing plain
// keys runs no Python code.
//
// Memory of zeros is an empty recall.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "health/python/dict.hpp"

namespace health {

/// Which state of which dictionary something is known of.
class Watch {
public:
    [[nodiscard]] bool is_current(PyObject* mapping) const {
        return mapping == mapping_ && mapping != nullptr && PyDict_CheckExact(mapping) &&
               py::version_of(mapping) == version_;
    }

    /// From now on it is known of the mapping as it is.
    void set(PyObject* mapping) {
        mapping_ = mapping;
        version_ = py::version_of(mapping);
        misses_ = 0;
    }

    /// Counts a question about a mapping that is not current; whether there were enough to learn it anew.
    bool is_worth_learning(PyObject* mapping) {
        constexpr std::size_t keys_per_miss = 8;
        return ++misses_ * keys_per_miss > static_cast<std::size_t>(PyDict_GET_SIZE(mapping));
    }

private:
    PyObject* mapping_;  // compared only, never followed
    std::uint64_t version_;
    std::size_t misses_;
};

/// Remembers of `_state` that all its keys are plain.
class StateRecall {
public:
    /// The value under a key; nullptr if there is none, or if finding it might run Python code. Borrowed.
    [[nodiscard]] PyObject* find(PyObject* states, PyObject* name) const;

    /// Told of every question that went unanswered, with the mapping it was about.
    void notice_miss(PyObject* states);

    /// Learns a mapping. Runs no Python code.
    void learn(PyObject* states);

    /// `states[name] = record`. Throws what the assignment raises; runs Python code only if a key is not plain.
    void insert(PyObject* states, PyObject* name, PyObject* record);

    /// Whether what it knows of the mapping is true. For checks; runs no Python code.
    [[nodiscard]] bool is_consistent(PyObject* states) const;

private:
    Watch watch_;
};

/// Remembers which record each plain key of `_usage` leads to, all borrowed from that dictionary.
class UsageRecall {
public:
    static constexpr std::size_t parts = 4;
    using Key = std::array<PyObject*, parts>;

    /// The record under a key, given by its parts, or nullptr if it is not known. Runs no Python code.
    [[nodiscard]] PyObject* find(PyObject* usage, const Key& key) const;

    /// As for states. Values that are not exactly of `record_type` are left out.
    void notice_miss(PyObject* usage, PyObject* record_type);
    void learn(PyObject* usage, PyObject* record_type);

    /// `usage[key] = record`, remembered. As for states.
    void insert(PyObject* usage, PyObject* key, PyObject* record);

    /// Forgets everything and gives the memory back.
    void forget();

    /// Whether every answer it would give now is what the mapping holds. For checks; runs no Python code.
    [[nodiscard]] bool is_consistent(PyObject* usage) const;

private:
    struct Entry {
        PyObject* key;  // a tuple; NULL in a free place
        PyObject* record;
    };

    [[nodiscard]] Entry& place_of(const Key& key) const;
    [[nodiscard]] bool reserve(std::size_t keys);
    void put(PyObject* key, PyObject* record);

    Watch watch_;
    Entry* table_;  // open addressing; a power of two, at most half of it in use
    std::size_t size_;
    std::size_t count_;
};

}  // namespace health
