// The key bindings of a parameter record, shared between the record and its copies.
#pragma once

#include <cstddef>
#include <map>
#include <utility>
#include <vector>

namespace veltrano {

// A binding names a field by its byte offset from the record that created the registry, so
// that a copy sharing the registry still reaches the creator's fields, and so that nothing is
// touched once the creator is gone (owner becomes null). Maps are ordered by offset, that is
// by field order.
struct ParamRegistry {
    using Binding = std::pair<std::ptrdiff_t, const char*>;

    char* owner = nullptr;  // the creating record (as its paramBase), null once destroyed

    std::map<std::ptrdiff_t, const char*> intKeys;
    std::map<std::ptrdiff_t, const char*> floatKeys;
    std::vector<Binding> intList;
    std::vector<Binding> floatList;
    // Lists for bindings of further kinds (double and text fields). No record has such fields
    // yet; clearDataToBeSaved empties them with the rest.
    std::vector<Binding> doubleList;
    std::vector<Binding> stringList;
};

}  // namespace veltrano
