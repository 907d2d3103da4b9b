// The text of the usage document: a compact JSON array, written as the runtime's encoder would write it.
//
// Plain values are written here; all others, and texts that need escapes, by the runtime's own `json`, which may run
// Python code and raises what it raises.
#pragma once

#include <Python.h>

#include <string_view>

#include "health/module/state.hpp"
#include "health/python/memory.hpp"
#include "health/python/ref_vector.hpp"

namespace health {

/// The decimals of a total in milliseconds.
inline constexpr int total_decimals = 3;

/// One entry of the document: a usage key with its counts, as they were under the lock.
struct DocumentEntry {
    py::Ref key;  // of `key_tuple`
    py::Ref calls;
    py::Ref timed_calls;
    py::Ref total_ms;  // rounded already, unless it is a float
};

class DocumentWriter {
public:
    explicit DocumentWriter(const Module& module) : module_(module) {}

    /// The document of these entries, as a str. An encoder that a host put in place of `json.dumps` is heard.
    py::Ref write(const py::RefVector<DocumentEntry>& entries);

private:
    [[nodiscard]] bool is_own_encoder(PyObject* json, PyObject* dumps) const;
    void add_entry(const DocumentEntry& entry);
    void add_member(std::string_view begin, PyObject* value);
    void add_total(PyObject* total_ms);
    void add_value(PyObject* value);
    void add_text(PyObject* value);
    void add_integer(PyObject* value);
    void add_float(double value);
    void add_rounded(double value);
    void add_by_runtime(PyObject* value);
    py::Ref dump(PyObject* dumps, PyObject* value) const;
    void add_characters(PyObject* text);

    const Module& module_;
    py::Text out_;
    py::Ref escape_;  // `json.encoder.encode_basestring_ascii`, once it is needed
};

}  // namespace health
