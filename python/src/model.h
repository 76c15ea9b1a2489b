// Model helpers shared by the prediction and CLUT bindings.
#pragma once

#include <cstdint>
#include <memory>

#include "common.h"

namespace kelma_py {

using ModelPtr = std::shared_ptr<kelma::ZKCSSE_KELMA_Data>;

// Checks an ink-subset code against the model: a 32-bit mask selecting
// `*required` inks (or 4, 6 or 7 when required is null).
std::uint32_t CheckCode(const kelma::ZKCSSE_KELMA_Data& model, const py::handle& code, const unsigned* required);

// A copy of the model reduced to illuminant k (ValueError when out of range).
// An ink_set argument: a 32-bit value carried unchanged.
std::uint32_t InkSetArgument(const py::handle& inkSet);

ModelPtr WithSingleIlluminant(const kelma::ZKCSSE_KELMA_Data& model, const py::handle& index);

}  // namespace kelma_py
