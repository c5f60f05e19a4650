#pragma once
// Fourier form of the interaction tensor for the convolution field.
#include "core/array.hpp"

namespace torix {

struct FourierTensor {
    bool ready = false;
};

}  // namespace torix
