#include "health/module/names.hpp"

namespace health {

void Names::intern() {
    static constexpr std::array spellings{
#define HEALTH_SPELLING(name) #name,
        HEALTH_NAMES(HEALTH_SPELLING)
#undef HEALTH_SPELLING
    };
    static_assert(spellings.size() == count);
    for (std::size_t index = 0; index < count; ++index) {
        texts_[index] = py::Ref::steal(PyUnicode_InternFromString(spellings[index]));
    }
}

}  // namespace health
