#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/common/LibraryErrors.h"

#include <cstring>

namespace KELMA_NAMESPACE {

namespace {

// 2 <= n <= 256: see kClutMinGridPoints and kClutMaxGridPoints.
std::uint32_t CheckedGridPoints(CLUT_ACCURACY accuracy) {
    const std::uint32_t n = static_cast<std::uint32_t>(accuracy);
    if (n < kClutMinGridPoints || n > kClutMaxGridPoints) throw kErrorDefaultCase;
    return n;
}

// True when the first m maps are IdentityOutputMap().
bool IdentityMaps(const std::vector<std::vector<OutputMapEntry>>& maps, unsigned m) {
    const std::vector<OutputMapEntry> identity = IdentityOutputMap();
    for (unsigned j = 0; j < m; ++j)
        if (maps[j] != identity) return false;
    return true;
}

// Entry g = g * step.
std::vector<std::uint32_t> Strides(std::uint32_t n, std::uint32_t step) {
    std::vector<std::uint32_t> s(n);
    for (std::uint32_t g = 0; g < n; ++g) s[g] = g * step;
    return s;
}

}  // namespace

// ---------------------------------------------------------------------------
// Base

ZKCWorkerCLUT_Base::ZKCWorkerCLUT_Base(CLUT_ACCURACY accuracy)
    : gridPoints_(CheckedGridPoints(accuracy)), variant_(ActiveKernelVariant()) {}

ZKCWorkerCLUT_Base::~ZKCWorkerCLUT_Base() = default;

void ZKCWorkerCLUT_Base::SetBuffers(const unsigned char* input, unsigned char* output, unsigned long count) {
    input_ = input;
    output_ = output;
    count_ = static_cast<std::uint32_t>(count);
}

bool ZKCWorkerCLUT_Base::IsInLAB() const { return false; }

// ---------------------------------------------------------------------------
// Three inputs

std::atomic<unsigned long> ZKCWorkerCLUT_3xn::instances_{0};

ZKCWorkerCLUT_3xn::ZKCWorkerCLUT_3xn(CLUT_ACCURACY accuracy, unsigned outputs)
    : ZKCWorkerCLUT_Base(accuracy),
      outputs_(outputs),
      stride0_(Strides(gridPoints_, gridPoints_ * gridPoints_)),
      stride1_(Strides(gridPoints_, gridPoints_)),
      inputMaps_(3, StandardInputMap(gridPoints_)),
      outputMaps_(outputs, IdentityOutputMap()),
      identityOutput_(IdentityMaps(outputMaps_, outputs)),
      weights_(AcquireClutWeightTable(3)) {}

ZKCWorkerCLUT_3xn::ZKCWorkerCLUT_3xn(const ZKCWorkerCLUT_3xn& other) = default;

ZKCWorkerCLUT_3xn::~ZKCWorkerCLUT_3xn() = default;

void ZKCWorkerCLUT_3xn::BuildCells(const unsigned char* nodes) {
    auto cells = std::make_shared<AlignedBuffer<std::uint8_t>>(ClutNodeCount(gridPoints_, 3) * 8 * outputs_);
    BuildCellTable(nodes, gridPoints_, 3, outputs_, cells->data());
    cells_ = std::move(cells);
}

void ZKCWorkerCLUT_3xn::UseLabInputMaps() {
    inputMaps_[1] = LabChromaInputMap(gridPoints_);
    inputMaps_[2] = LabChromaInputMap(gridPoints_);
}

ZKSClutTables3 ZKCWorkerCLUT_3xn::Tables() const {
    ZKSClutTables3 t{};
    for (unsigned a = 0; a < 3; ++a) t.inputMap[a] = inputMaps_[a].data();
    for (unsigned j = 0; j < outputs_; ++j) t.outputMap[j] = outputMaps_[j].data();
    t.stride0 = stride0_.data();
    t.stride1 = stride1_.data();
    t.cells = cells_->data();
    t.weights = weights_->Rows();
    t.pairs = weights_->Pairs();
    t.axis = weights_->AxisFactors();
    t.identityOutput = identityOutput_;
    return t;
}

void ZKCWorkerCLUT_3xn::Run(KERNEL_VARIANT variant) {
    if (count_ == 0) return;
    InterpolateClut3(variant, Tables(), outputs_, input_, output_, count_);
}

// ---------------------------------------------------------------------------
// Four inputs

std::atomic<unsigned long> ZKCWorkerCLUT_4xn::instances_{0};

ZKCWorkerCLUT_4xn::ZKCWorkerCLUT_4xn(CLUT_ACCURACY accuracy, unsigned outputs)
    : ZKCWorkerCLUT_Base(accuracy),
      outputs_(outputs),
      stride0_(Strides(gridPoints_, gridPoints_ * gridPoints_ * gridPoints_)),
      stride1_(Strides(gridPoints_, gridPoints_ * gridPoints_)),
      stride2_(Strides(gridPoints_, gridPoints_)),
      inputMaps_(4, StandardInputMap(gridPoints_)),
      outputMaps_(outputs, IdentityOutputMap()),
      identityOutput_(IdentityMaps(outputMaps_, outputs)),
      weights_(AcquireClutWeightTable(4)) {}

ZKCWorkerCLUT_4xn::ZKCWorkerCLUT_4xn(const ZKCWorkerCLUT_4xn& other) = default;

ZKCWorkerCLUT_4xn::~ZKCWorkerCLUT_4xn() = default;

void ZKCWorkerCLUT_4xn::BuildCells(const unsigned char* nodes) {
    auto cells = std::make_shared<AlignedBuffer<std::uint8_t>>(ClutNodeCount(gridPoints_, 4) * 16 * outputs_);
    BuildCellTable(nodes, gridPoints_, 4, outputs_, cells->data());
    // The node array itself, with zeroed slack for the 16-byte loads of the
    // node-major kernels.
    const std::size_t bytes = ClutNodeArrayBytes(gridPoints_, 4, outputs_);
    auto copy = std::make_shared<AlignedBuffer<std::uint8_t>>(bytes + kClutNodeSlack);
    std::memcpy(copy->data(), nodes, bytes);
    cells_ = std::move(cells);
    nodes_ = std::move(copy);
}

ZKSClutTables4 ZKCWorkerCLUT_4xn::Tables() const {
    ZKSClutTables4 t{};
    for (unsigned a = 0; a < 4; ++a) t.inputMap[a] = inputMaps_[a].data();
    for (unsigned j = 0; j < outputs_; ++j) t.outputMap[j] = outputMaps_[j].data();
    t.stride0 = stride0_.data();
    t.stride1 = stride1_.data();
    t.stride2 = stride2_.data();
    t.cells = cells_->data();
    t.weights = weights_->Rows();
    t.pairs = weights_->Pairs();
    t.axis = weights_->AxisFactors();
    t.nodes = nodes_->data();
    for (unsigned k = 0; k < 8; ++k)
        t.cornerOffset[k] = outputs_ * ((k & 1u ? stride0_[1] : 0u) + (k & 2u ? stride1_[1] : 0u) +
                                        (k & 4u ? stride2_[1] : 0u));
    t.identityOutput = identityOutput_;
    return t;
}

void ZKCWorkerCLUT_4xn::Run(KERNEL_VARIANT variant) {
    if (count_ == 0) return;
    InterpolateClut4x3(variant, Tables(), input_, output_, count_);
}

// ---------------------------------------------------------------------------
// Concrete shapes

ZKCWorkerCLUT_3x3::ZKCWorkerCLUT_3x3(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 3) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_3x3::Interpolate() { Run(variant_); }
void ZKCWorkerCLUT_3x3::InterpolateWith(KERNEL_VARIANT variant) { Run(variant); }

ZKCWorkerCLUT_3x3_InLAB::ZKCWorkerCLUT_3x3_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3x3(nodes, accuracy) {
    UseLabInputMaps();
}

ZKCWorkerCLUT_3x4::ZKCWorkerCLUT_3x4(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 4) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_3x4::Interpolate() { Run(variant_); }
void ZKCWorkerCLUT_3x4::InterpolateWith(KERNEL_VARIANT variant) { Run(variant); }

ZKCWorkerCLUT_3x4_InLAB::ZKCWorkerCLUT_3x4_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3x4(nodes, accuracy) {
    UseLabInputMaps();
}

ZKCWorkerCLUT_3x7::ZKCWorkerCLUT_3x7(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 7) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_3x7::Interpolate() { Run(variant_); }
void ZKCWorkerCLUT_3x7::InterpolateWith(KERNEL_VARIANT variant) { Run(variant); }

ZKCWorkerCLUT_3x7_InLAB::ZKCWorkerCLUT_3x7_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3x7(nodes, accuracy) {
    UseLabInputMaps();
}

ZKCWorkerCLUT_4x3::ZKCWorkerCLUT_4x3(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_4xn(accuracy, 3) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_4x3::Interpolate() { Run(variant_); }
void ZKCWorkerCLUT_4x3::InterpolateWith(KERNEL_VARIANT variant) { Run(variant); }

}  // namespace KELMA_NAMESPACE
