#include "kelma/clut/ZKCWorkerCLUT.h"

namespace KELMA_NAMESPACE {

namespace {

// 2 <= n <= 256: see kClutMinGridPoints and kClutMaxGridPoints.
std::uint32_t CheckedGridPoints(CLUT_ACCURACY accuracy) {
    const std::uint32_t n = static_cast<std::uint32_t>(accuracy);
    if (n < kClutMinGridPoints || n > kClutMaxGridPoints) throw "DefaultCase";
    return n;
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

ZKCWorkerCLUT_Base::ZKCWorkerCLUT_Base(CLUT_ACCURACY accuracy) : gridPoints_(CheckedGridPoints(accuracy)) {}

ZKCWorkerCLUT_Base::~ZKCWorkerCLUT_Base() = default;

void ZKCWorkerCLUT_Base::SetBuffers(const unsigned char* input, unsigned char* output, unsigned long count) {
    input_ = input;
    output_ = output;
    count_ = static_cast<std::uint32_t>(count);
}

bool ZKCWorkerCLUT_Base::IsInLAB() const { return false; }

// ---------------------------------------------------------------------------
// Three inputs
//
// The shape's weight table and its counter: the first constructor creates the
// table when none exists, every constructor (copies too) counts itself as the
// last step of its body, so a constructor that throws earlier has not counted;
// the destructor that brings the counter to zero frees the table. No lock: see
// ZKCWorkerCLUT.h (one thread constructs and destroys).

ZKCClutWeightTable* ZKCWorkerCLUT_3xn::sharedWeights_ = nullptr;
unsigned long ZKCWorkerCLUT_3xn::instances_ = 0;

ZKCWorkerCLUT_3xn::ZKCWorkerCLUT_3xn(CLUT_ACCURACY accuracy, unsigned outputs)
    : ZKCWorkerCLUT_Base(accuracy),
      outputs_(outputs),
      stride0_(Strides(gridPoints_, gridPoints_ * gridPoints_)),
      stride1_(Strides(gridPoints_, gridPoints_)),
      inputMaps_(3, StandardInputMap(gridPoints_)),
      outputMaps_(outputs, IdentityOutputMap()) {
    if (sharedWeights_ == nullptr) sharedWeights_ = new ZKCClutWeightTable(3);
    weights_ = sharedWeights_;
    ++instances_;
}

ZKCWorkerCLUT_3xn::ZKCWorkerCLUT_3xn(const ZKCWorkerCLUT_3xn& other)
    : ZKCWorkerCLUT_Base(other),
      outputs_(other.outputs_),
      stride0_(other.stride0_),
      stride1_(other.stride1_),
      inputMaps_(other.inputMaps_),
      outputMaps_(other.outputMaps_),
      cells_(other.cells_),
      weights_(other.weights_) {
    ++instances_;
}

ZKCWorkerCLUT_3xn::~ZKCWorkerCLUT_3xn() {
    if (--instances_ == 0) {
        delete sharedWeights_;
        sharedWeights_ = nullptr;
    }
}

void ZKCWorkerCLUT_3xn::BuildCells(const unsigned char* nodes) {
    cells_ = AlignedBuffer<std::uint8_t>(ClutNodeCount(gridPoints_, 3) * 8 * outputs_);
    BuildCellTable(nodes, gridPoints_, 3, outputs_, cells_.data());
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
    t.cells = cells_.data();
    t.weights = weights_->Rows();
    t.pairs = weights_->Pairs();
    t.axis = weights_->AxisFactors();
    return t;
}

void ZKCWorkerCLUT_3xn::Run(ZKEClutKernel kernel) {
    if (count_ == 0) return;
    InterpolateClut3(kernel, Tables(), outputs_, input_, output_, count_);
}

// ---------------------------------------------------------------------------
// Four inputs (shared table and counter as for three inputs)

ZKCClutWeightTable* ZKCWorkerCLUT_4xn::sharedWeights_ = nullptr;
unsigned long ZKCWorkerCLUT_4xn::instances_ = 0;

ZKCWorkerCLUT_4xn::ZKCWorkerCLUT_4xn(CLUT_ACCURACY accuracy, unsigned outputs)
    : ZKCWorkerCLUT_Base(accuracy),
      outputs_(outputs),
      stride0_(Strides(gridPoints_, gridPoints_ * gridPoints_ * gridPoints_)),
      stride1_(Strides(gridPoints_, gridPoints_ * gridPoints_)),
      stride2_(Strides(gridPoints_, gridPoints_)),
      inputMaps_(4, StandardInputMap(gridPoints_)),
      outputMaps_(outputs, IdentityOutputMap()) {
    if (sharedWeights_ == nullptr) sharedWeights_ = new ZKCClutWeightTable(4);
    weights_ = sharedWeights_;
    ++instances_;
}

ZKCWorkerCLUT_4xn::ZKCWorkerCLUT_4xn(const ZKCWorkerCLUT_4xn& other)
    : ZKCWorkerCLUT_Base(other),
      outputs_(other.outputs_),
      stride0_(other.stride0_),
      stride1_(other.stride1_),
      stride2_(other.stride2_),
      inputMaps_(other.inputMaps_),
      outputMaps_(other.outputMaps_),
      cells_(other.cells_),
      weights_(other.weights_) {
    ++instances_;
}

ZKCWorkerCLUT_4xn::~ZKCWorkerCLUT_4xn() {
    if (--instances_ == 0) {
        delete sharedWeights_;
        sharedWeights_ = nullptr;
    }
}

void ZKCWorkerCLUT_4xn::BuildCells(const unsigned char* nodes) {
    cells_ = AlignedBuffer<std::uint8_t>(ClutNodeCount(gridPoints_, 4) * 16 * outputs_);
    BuildCellTable(nodes, gridPoints_, 4, outputs_, cells_.data());
}

ZKSClutTables4 ZKCWorkerCLUT_4xn::Tables() const {
    ZKSClutTables4 t{};
    for (unsigned a = 0; a < 4; ++a) t.inputMap[a] = inputMaps_[a].data();
    for (unsigned j = 0; j < outputs_; ++j) t.outputMap[j] = outputMaps_[j].data();
    t.stride0 = stride0_.data();
    t.stride1 = stride1_.data();
    t.stride2 = stride2_.data();
    t.cells = cells_.data();
    t.weights = weights_->Rows();
    t.pairs = weights_->Pairs();
    return t;
}

void ZKCWorkerCLUT_4xn::Run(ZKEClutKernel kernel) {
    if (count_ == 0) return;
    InterpolateClut4x3(kernel, Tables(), input_, output_, count_);
}

// ---------------------------------------------------------------------------
// Concrete shapes

ZKCWorkerCLUT_3x3::ZKCWorkerCLUT_3x3(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 3) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_3x3::Interpolate() { Run(BestClutKernel()); }
void ZKCWorkerCLUT_3x3::InterpolateWith(ZKEClutKernel kernel) { Run(kernel); }

ZKCWorkerCLUT_3x3_InLAB::ZKCWorkerCLUT_3x3_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3x3(nodes, accuracy) {
    UseLabInputMaps();
}

ZKCWorkerCLUT_3x4::ZKCWorkerCLUT_3x4(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 4) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_3x4::Interpolate() { Run(BestClutKernel()); }
void ZKCWorkerCLUT_3x4::InterpolateWith(ZKEClutKernel kernel) { Run(kernel); }

ZKCWorkerCLUT_3x4_InLAB::ZKCWorkerCLUT_3x4_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3x4(nodes, accuracy) {
    UseLabInputMaps();
}

ZKCWorkerCLUT_3x7::ZKCWorkerCLUT_3x7(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 7) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_3x7::Interpolate() { Run(BestClutKernel()); }
void ZKCWorkerCLUT_3x7::InterpolateWith(ZKEClutKernel kernel) { Run(kernel); }

ZKCWorkerCLUT_3x7_InLAB::ZKCWorkerCLUT_3x7_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3x7(nodes, accuracy) {
    UseLabInputMaps();
}

ZKCWorkerCLUT_4x3::ZKCWorkerCLUT_4x3(const unsigned char* nodes, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_4xn(accuracy, 3) {
    BuildCells(nodes);
}
void ZKCWorkerCLUT_4x3::Interpolate() { Run(BestClutKernel()); }
void ZKCWorkerCLUT_4x3::InterpolateWith(ZKEClutKernel kernel) { Run(kernel); }

}  // namespace KELMA_NAMESPACE
