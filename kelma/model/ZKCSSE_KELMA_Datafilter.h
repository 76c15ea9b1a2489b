// The model of a printer when only some of its inks are used, the others
// held at 0, cut out of a full model by an ink-subset code.
#pragma once

#include <memory>
#include <vector>

#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

// Code: bit i keeps ink i (bits at N and above are ignored); 0xFFFFFFFF is a
// plain copy. Sub-model ink j is the j-th kept ink in ascending order; its
// cells are the full model's cells that sit at cell 0 along every dropped ink,
// and its corners those containing no dropped ink, both in ascending order.
// n, lighting matrix, ink set (not narrowed) and both flags come from the full
// model; the sub-model always has 31 spectral values and so computes its own
// paper white. A code selecting no ink is not guarded (0-ink sub-model, whose
// construction throws "DefaultCase" like every model without a kernel).
//
// Copies share the sub-model (a copy is another handle on the same object).
class KELMA_API ZKCSSE_KELMA_Datafilter {
public:
    ZKCSSE_KELMA_Datafilter(const ZKCSSE_KELMA_Data& fullModel, unsigned int code);
    // The same filtering applied straight to a caller's double arrays (laid
    // out as the model's), so the full model is never built.
    ZKCSSE_KELMA_Datafilter(unsigned int numberOfInks, unsigned int numberOfGridPoints, const double* gridPoints,
                            const double* effectiveRamps, const double* matrixScheme, double n,
                            const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, unsigned int code,
                            bool isMediaRelative, bool printAbsolutColorimetric);
    ZKCSSE_KELMA_Datafilter(const ZKCSSE_KELMA_Datafilter& other) = default;
    ZKCSSE_KELMA_Datafilter& operator=(const ZKCSSE_KELMA_Datafilter& other) = default;
    virtual ~ZKCSSE_KELMA_Datafilter();

    const ZKCSSE_KELMA_Data& GetKELMA_Data() const { return *data_; }
    void ReduceToSingleIlluminant(unsigned long k) { data_->ReduceToSingleIlluminant(k); }

private:
    static unsigned int GetSubSet_NumberOfInks(unsigned int numberOfInks, unsigned int code);
    // Element i = (G-1)^i, the cell-number weight of ink i.
    static std::vector<double> GetBase(unsigned int numberOfInks, unsigned int numberOfGridPoints);
    // Bit i set when cell q is not the first cell along ink i.
    static unsigned int GetCode(unsigned int cell, unsigned int numberOfInks, const std::vector<double>& base);

    template <class T>
    struct Filtered {
        unsigned int inks;
        std::vector<T> gridPoints, effectiveRamps, matrixScheme;
    };
    template <class T>
    static Filtered<T> Filter(unsigned int N, unsigned int G, const T* gridPoints, const T* effectiveRamps,
                              const T* matrixScheme, unsigned int code);

    std::shared_ptr<ZKCSSE_KELMA_Data> data_;
};

}  // namespace KELMA_NAMESPACE
