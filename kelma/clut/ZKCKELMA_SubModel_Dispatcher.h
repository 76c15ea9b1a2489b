// Walks a list of ink subsets of one printer model and keeps, for the subset
// it stands on, a ready CLUT driver built from that subset's sub-model under
// one illuminant. Every move and every illuminant choice rebuilds the CLUT.
// The old CLUT is deleted first, so with it the shared 64 MiB four-input
// weight table of the workers (unless another CLUT of the process still holds
// it), which the new CLUT creates again. Use one dispatcher from one thread at
// a time; separate dispatchers and CLUT drivers may be created, used and
// destroyed on different threads at once (see ZKCWorkerCLUT_Thread.h).
#pragma once

#include <memory>
#include <vector>

#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/common/Types.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

// Codes are ink-subset masks (bit i keeps ink i). Only subsets of 4 inks give
// a CLUT (4 ink bytes in, 3 bytes out per pixel): 3 inks throw "DefaultCase"
// (no 3-ink prediction kernel), as does any other ink count.
//
// Failed rebuild: when a rebuild throws ("DefaultCase" for an unsupported
// subset, "Invalid IlluminantIndex" for an illuminant not below
// IlluminantNumber(), std::out_of_range for an empty code list), the old CLUT
// is already gone and the new index and illuminant are kept: the dispatcher
// holds no worker (HasWorker() is false, Init and Calculate throw
// "DefaultCase") until a later move or SetIlluminant succeeds.
class KELMA_API ZKCKELMA_SubModel_Dispatcher {
public:
    // Copies the model; empty code list, index 0, illuminant 0, no worker. SetCodeList must follow.
    ZKCKELMA_SubModel_Dispatcher(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy);
    // The same with the codes copied; builds the CLUT of code 0 under illuminant 0.
    ZKCKELMA_SubModel_Dispatcher(const ZKCSSE_KELMA_Data& model, const std::vector<unsigned long>& codes,
                                 CLUT_ACCURACY accuracy);
    // A copy shares its source's current CLUT driver; the last owner frees it.
    ZKCKELMA_SubModel_Dispatcher(const ZKCKELMA_SubModel_Dispatcher&) = default;
    ZKCKELMA_SubModel_Dispatcher& operator=(const ZKCKELMA_SubModel_Dispatcher&) = delete;
    virtual ~ZKCKELMA_SubModel_Dispatcher();

    // Index 0, illuminant 0, rebuild.
    void First();
    // Next index, wrapping from the last to the first; illuminant 0; rebuild.
    void Next();
    // Previous index, wrapping from the first to the last; illuminant 0; rebuild.
    void Previous();
    bool IsLast() const;
    // Code at the current index (std::out_of_range when the list is empty).
    unsigned long Code() const;
    // Replaces the list, then First().
    void SetCodeList(const std::vector<unsigned long>& codes);
    // Illuminant k of the model, index unchanged, rebuild.
    void SetIlluminant(unsigned long k);

    unsigned long IlluminantNumber() const;
    INK_SET Total_InkSet() const;
    const ZKCSSE_KELMA_Data& SSE_KELMA_Data() const { return model_; }
    CLUT_ACCURACY Accuracy() const { return accuracy_; }
    unsigned long CurrentIndex() const { return index_; }
    unsigned long IlluminantIndex() const { return illuminant_; }
    bool HasWorker() const { return worker_ != nullptr; }

    // Forward to the current CLUT driver: pixels of 4 ink bytes in, 3 bytes out.
    void Init(const unsigned char* input, unsigned char* output, unsigned long count);
    void Calculate();

private:
    void SetWorkerCLUT();

    ZKCSSE_KELMA_Data model_;
    std::vector<unsigned long> codes_;
    CLUT_ACCURACY accuracy_;
    std::uint32_t index_ = 0;
    std::uint32_t illuminant_ = 0;
    std::shared_ptr<ZKCWorkerCLUT_Thread> worker_;
};

}  // namespace KELMA_NAMESPACE
