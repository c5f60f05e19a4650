#include "interpreter/model_state.hpp"

namespace torix {

std::int64_t count_magnetic(const IntGrid& mask) {
    std::int64_t n = 0;
    for (std::int32_t v : mask)
        if (v != 0) ++n;
    return n;
}

}  // namespace torix
