// CLUT workers: one colour look-up table on a regular grid of n points per
// input axis, applied to a run of interleaved 8-bit pixels by multilinear
// interpolation in fixed point (positions in 1/32 of a cell, integer weights).
//
//   ZKCWorkerCLUT_Base
//     ZKCWorkerCLUT_3xn -> ZKCWorkerCLUT_3x3 -> ZKCWorkerCLUT_3x3_InLAB
//                          ZKCWorkerCLUT_3x4 -> ZKCWorkerCLUT_3x4_InLAB
//                          ZKCWorkerCLUT_3x7 -> ZKCWorkerCLUT_3x7_InLAB
//     ZKCWorkerCLUT_4xn -> ZKCWorkerCLUT_4x3
//
// Built from a node array (m bytes per node, axis 0 outermost, of
// ClutNodeArrayBytes(n, d, m) bytes: the cells on the upper faces read corners
// past the last node), or for 3x3 / 4x3 from a printer model. Workers are
// internal; hosts use ZKCWorkerCLUT_Thread.
//
// Sharing: the tables a worker interpolates from are immutable once built, so
// a copy shares them with its source instead of duplicating them (the per-
// processor copies of the CLUT driver then read one table, which stays in the
// caches of every core, instead of one each). What a copy shares: the cell
// blocks (and, four inputs, the node array) of its CLUT, held by reference
// count, and the weight table of its shape (ZKCClutWeightTable), one per
// process and shape, shared by all workers of that shape. Each copy keeps its
// own buffers, pixel count, input and output maps, and kernel variant.
//
// Threads: Interpolate only reads the shared tables and writes its own output
// slice, so copies run in parallel without locks. Construction, copying and
// destruction are thread-safe too: the shared tables are reference counted
// and the shape's weight table is created under a lock by the first worker
// that needs it (AcquireClutWeightTable). Two host threads may build and
// destroy CLUTs at the same time; one worker must still not run Interpolate
// on two threads at once (it has one set of buffers).
//
// Kernel: the worker reads ActiveKernelVariant() when it is constructed (a
// copy keeps its source's choice) and Interpolate always uses that kernel;
// every kernel gives the same bytes (ClutKernel.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "kelma/clut/ClutKernel.h"
#include "kelma/clut/ClutTables.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class ZKCSSE_KELMA_Data;

class ZKCWorkerCLUT_Base {
public:
    virtual ~ZKCWorkerCLUT_Base();

    // Pixels to read (InputChannels bytes each) and to write (OutputChannels bytes each).
    virtual void SetBuffers(const unsigned char* input, unsigned char* output, unsigned long count);
    virtual unsigned long InputChannels() const = 0;
    virtual unsigned long OutputChannels() const = 0;
    // Only the driver reads it (to pick the thread wrapper); no effect on the arithmetic.
    virtual bool IsInLAB() const;
    // Applies the table to the stored pixels with the kernel chosen at construction.
    virtual void Interpolate() = 0;
    // The same with another variant's kernel (the processor must run it:
    // KernelVariantSupported); all kernels give identical bytes.
    virtual void InterpolateWith(KERNEL_VARIANT variant) = 0;

    // Thread body.
    void operator()() { Interpolate(); }

    const unsigned char* Input() const { return input_; }
    unsigned char* Output() const { return output_; }
    std::uint32_t Count() const { return count_; }
    std::uint32_t GridPoints() const { return gridPoints_; }
    // The variant Interpolate runs: ActiveKernelVariant() when the worker (or
    // the source of its copy) was constructed.
    KERNEL_VARIANT Variant() const { return variant_; }

protected:
    // Throws "DefaultCase" unless 2 <= accuracy <= 256.
    explicit ZKCWorkerCLUT_Base(CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_Base(const ZKCWorkerCLUT_Base&) = default;
    ZKCWorkerCLUT_Base& operator=(const ZKCWorkerCLUT_Base&) = delete;

    const unsigned char* input_ = nullptr;
    unsigned char* output_ = nullptr;
    std::uint32_t count_ = 0;
    std::uint32_t gridPoints_;
    KERNEL_VARIANT variant_;
};

// Three input channels, m = OutputChannels() output channels.
class ZKCWorkerCLUT_3xn : public ZKCWorkerCLUT_Base {
public:
    unsigned long InputChannels() const override { return 3; }

    ~ZKCWorkerCLUT_3xn() override;

    // 8 m bytes of the cell whose lowest corner is `node`: corner-major,
    // bytes k m .. k m + m - 1 = corner k (corner bit a: +1 along axis a).
    // Shared with every copy of this worker.
    const std::uint8_t* CellBlock(std::size_t node) const { return cells_->data() + node * 8 * outputs_; }
    const InputMapEntry* InputMap(unsigned axis) const { return inputMaps_[axis].data(); }
    const OutputMapEntry* OutputMap(unsigned channel) const { return outputMaps_[channel].data(); }
    const ZKCClutWeightTable& Weights() const { return *weights_; }

    // The shared three-input table (null while no three-input worker exists)
    // and the number of three-input workers alive.
    static std::shared_ptr<const ZKCClutWeightTable> SharedWeights() { return LiveClutWeightTable(3); }
    static unsigned long Instances() { return instances_.load(); }

protected:
    // Strides, standard input maps, identity output maps, shared weights; no cells yet.
    ZKCWorkerCLUT_3xn(CLUT_ACCURACY accuracy, unsigned outputs);
    ZKCWorkerCLUT_3xn(const ZKCWorkerCLUT_3xn& other);

    void BuildCells(const unsigned char* nodes);
    // Replaces the maps of channels 1 and 2 (a, b) by the CIELAB ones.
    void UseLabInputMaps();
    ZKSClutTables3 Tables() const;
    void Run(KERNEL_VARIANT variant);

private:
    unsigned outputs_;
    std::vector<std::uint32_t> stride0_;  // g n^2
    std::vector<std::uint32_t> stride1_;  // g n
    std::vector<std::vector<InputMapEntry>> inputMaps_;
    std::vector<std::vector<OutputMapEntry>> outputMaps_;
    bool identityOutput_;  // outputMaps_ are IdentityOutputMap() (always, today)
    std::shared_ptr<const AlignedBuffer<std::uint8_t>> cells_;  // n^3 blocks of 8 m bytes
    std::shared_ptr<const ZKCClutWeightTable> weights_;         // AcquireClutWeightTable(3)
    // Counts the live workers; the last member, so a constructor that throws has not counted.
    struct Counter {
        Counter() { ++instances_; }
        Counter(const Counter&) : Counter() {}
        ~Counter() { --instances_; }
    } counted_;

    static std::atomic<unsigned long> instances_;
};

// Four input channels, three outputs (the only four-input shape).
class ZKCWorkerCLUT_4xn : public ZKCWorkerCLUT_Base {
public:
    unsigned long InputChannels() const override { return 4; }

    ~ZKCWorkerCLUT_4xn() override;

    // 16 m bytes per node, corner-major as in ZKCWorkerCLUT_3xn.
    const std::uint8_t* CellBlock(std::size_t node) const { return cells_->data() + node * 16 * outputs_; }
    // The node array the worker was built from (m bytes per node,
    // ClutNodeArrayBytes(n, 4, m) bytes), read by the node-major kernels.
    const std::uint8_t* Nodes() const { return nodes_->data(); }
    const InputMapEntry* InputMap(unsigned axis) const { return inputMaps_[axis].data(); }
    const OutputMapEntry* OutputMap(unsigned channel) const { return outputMaps_[channel].data(); }
    const ZKCClutWeightTable& Weights() const { return *weights_; }

    // The shared four-input table (64 MiB; null while no four-input worker
    // exists) and the number of four-input workers alive.
    static std::shared_ptr<const ZKCClutWeightTable> SharedWeights() { return LiveClutWeightTable(4); }
    static unsigned long Instances() { return instances_.load(); }

protected:
    ZKCWorkerCLUT_4xn(CLUT_ACCURACY accuracy, unsigned outputs);
    ZKCWorkerCLUT_4xn(const ZKCWorkerCLUT_4xn& other);

    void BuildCells(const unsigned char* nodes);
    ZKSClutTables4 Tables() const;
    void Run(KERNEL_VARIANT variant);

private:
    unsigned outputs_;
    std::vector<std::uint32_t> stride0_;  // g n^3
    std::vector<std::uint32_t> stride1_;  // g n^2
    std::vector<std::uint32_t> stride2_;  // g n
    std::vector<std::vector<InputMapEntry>> inputMaps_;
    std::vector<std::vector<OutputMapEntry>> outputMaps_;
    bool identityOutput_;
    std::shared_ptr<const AlignedBuffer<std::uint8_t>> cells_;  // n^4 blocks of 16 m bytes
    std::shared_ptr<const AlignedBuffer<std::uint8_t>> nodes_;  // node array + kClutNodeSlack zero bytes
    std::shared_ptr<const ZKCClutWeightTable> weights_;         // AcquireClutWeightTable(4)
    struct Counter {
        Counter() { ++instances_; }
        Counter(const Counter&) : Counter() {}
        ~Counter() { --instances_; }
    } counted_;

    static std::atomic<unsigned long> instances_;
};

class ZKCWorkerCLUT_3x3 : public ZKCWorkerCLUT_3xn {
public:
    // nodes: 3 bytes per node, ClutNodeArrayBytes(n, 3, 3) bytes.
    ZKCWorkerCLUT_3x3(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    // Predicts every node of a 3-ink model. The prediction driver has no 3-ink
    // kernel, so this throws "DefaultCase" (kept: only 4-ink CLUTs come from models).
    ZKCWorkerCLUT_3x3(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_3x3(const ZKCWorkerCLUT_3x3&) = default;
    unsigned long OutputChannels() const override { return 3; }
    void Interpolate() override;
    void InterpolateWith(KERNEL_VARIANT variant) override;
};

class ZKCWorkerCLUT_3x3_InLAB : public ZKCWorkerCLUT_3x3 {
public:
    ZKCWorkerCLUT_3x3_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_3x3_InLAB(const ZKCWorkerCLUT_3x3_InLAB&) = default;
    bool IsInLAB() const override { return true; }
};

class ZKCWorkerCLUT_3x4 : public ZKCWorkerCLUT_3xn {
public:
    ZKCWorkerCLUT_3x4(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_3x4(const ZKCWorkerCLUT_3x4&) = default;
    unsigned long OutputChannels() const override { return 4; }
    void Interpolate() override;
    void InterpolateWith(KERNEL_VARIANT variant) override;
};

class ZKCWorkerCLUT_3x4_InLAB : public ZKCWorkerCLUT_3x4 {
public:
    ZKCWorkerCLUT_3x4_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_3x4_InLAB(const ZKCWorkerCLUT_3x4_InLAB&) = default;
    bool IsInLAB() const override { return true; }
};

class ZKCWorkerCLUT_3x7 : public ZKCWorkerCLUT_3xn {
public:
    ZKCWorkerCLUT_3x7(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_3x7(const ZKCWorkerCLUT_3x7&) = default;
    unsigned long OutputChannels() const override { return 7; }
    void Interpolate() override;
    void InterpolateWith(KERNEL_VARIANT variant) override;
};

// CIELAB input maps, but IsInLAB stays false: the driver then runs it under the
// plain 3x7 wrapper, which does the same work.
class ZKCWorkerCLUT_3x7_InLAB : public ZKCWorkerCLUT_3x7 {
public:
    ZKCWorkerCLUT_3x7_InLAB(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_3x7_InLAB(const ZKCWorkerCLUT_3x7_InLAB&) = default;
};

class ZKCWorkerCLUT_4x3 : public ZKCWorkerCLUT_4xn {
public:
    // nodes: 3 bytes per node, ClutNodeArrayBytes(n, 4, 3) bytes.
    ZKCWorkerCLUT_4x3(const unsigned char* nodes, CLUT_ACCURACY accuracy);
    // Predicts every node of a 4-ink model (one illuminant: 3 bytes per node).
    ZKCWorkerCLUT_4x3(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy);
    ZKCWorkerCLUT_4x3(const ZKCWorkerCLUT_4x3&) = default;
    unsigned long OutputChannels() const override { return 3; }
    void Interpolate() override;
    void InterpolateWith(KERNEL_VARIANT variant) override;
};

}  // namespace KELMA_NAMESPACE
