#include "kelma/clut/ZKCKELMA_SubModel_Dispatcher.h"

#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

ZKCKELMA_SubModel_Dispatcher::ZKCKELMA_SubModel_Dispatcher(const ZKCSSE_KELMA_Data& model,
                                                           CLUT_ACCURACY accuracy)
    : model_(model), accuracy_(accuracy) {}

ZKCKELMA_SubModel_Dispatcher::ZKCKELMA_SubModel_Dispatcher(const ZKCSSE_KELMA_Data& model,
                                                           const std::vector<unsigned long>& codes,
                                                           CLUT_ACCURACY accuracy)
    : model_(model), codes_(codes), accuracy_(accuracy) {
    SetWorkerCLUT();
}

ZKCKELMA_SubModel_Dispatcher::~ZKCKELMA_SubModel_Dispatcher() = default;

void ZKCKELMA_SubModel_Dispatcher::First() {
    index_ = 0;
    illuminant_ = 0;
    SetWorkerCLUT();
}

void ZKCKELMA_SubModel_Dispatcher::Next() {
    // codes_.size() - 1 wraps for an empty list; the rebuild then reports it.
    index_ = index_ < codes_.size() - 1 ? index_ + 1 : 0;
    illuminant_ = 0;
    SetWorkerCLUT();
}

void ZKCKELMA_SubModel_Dispatcher::Previous() {
    index_ = (index_ != 0 ? index_ : static_cast<std::uint32_t>(codes_.size())) - 1;
    illuminant_ = 0;
    SetWorkerCLUT();
}

bool ZKCKELMA_SubModel_Dispatcher::IsLast() const { return index_ == codes_.size() - 1; }

unsigned long ZKCKELMA_SubModel_Dispatcher::Code() const { return codes_.at(index_); }

void ZKCKELMA_SubModel_Dispatcher::SetCodeList(const std::vector<unsigned long>& codes) {
    codes_ = codes;
    First();
}

void ZKCKELMA_SubModel_Dispatcher::SetIlluminant(unsigned long k) {
    illuminant_ = static_cast<std::uint32_t>(k);
    SetWorkerCLUT();
}

unsigned long ZKCKELMA_SubModel_Dispatcher::IlluminantNumber() const {
    return model_.Lighting_Matrix().IlluminantNumber();
}

INK_SET ZKCKELMA_SubModel_Dispatcher::Total_InkSet() const { return model_.Total_InkSet(); }

void ZKCKELMA_SubModel_Dispatcher::Init(const unsigned char* input, unsigned char* output, unsigned long count) {
    if (!worker_) throw kErrorDefaultCase;
    worker_->Init(input, output, count);
}

void ZKCKELMA_SubModel_Dispatcher::Calculate() {
    if (!worker_) throw kErrorDefaultCase;
    worker_->Calculate();
}

// The old CLUT goes first so that two full tables never coexist; a failure on
// the way leaves the dispatcher without a worker.
void ZKCKELMA_SubModel_Dispatcher::SetWorkerCLUT() {
    worker_.reset();
    ZKCSSE_KELMA_Datafilter filter(model_, static_cast<unsigned int>(codes_.at(index_)));
    filter.ReduceToSingleIlluminant(illuminant_);
    worker_ = std::make_shared<ZKCWorkerCLUT_Thread>(filter.GetKELMA_Data(), accuracy_);
}

}  // namespace KELMA_NAMESPACE
