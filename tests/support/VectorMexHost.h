// A host for the MEX gateway body without MATLAB/Octave: arrays are plain
// buffers with a column-major dimension vector.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/mex/ZKCMexGateway.h"

namespace kelma_test {

struct HostArray {
    std::vector<std::size_t> dims;
    kelma::AlignedBuffer<unsigned char> bytes;
};

class VectorMexHost : public kelma::ZKCMexHost {
public:
    template <class T>
    HostArray* Make(const std::vector<std::size_t>& dims, const std::vector<T>& values) {
        auto a = std::make_unique<HostArray>();
        a->dims = dims;
        a->bytes = kelma::AlignedBuffer<unsigned char>(values.size() * sizeof(T) + 16);
        if (!values.empty()) std::memcpy(a->bytes.data(), values.data(), values.size() * sizeof(T));
        arrays_.push_back(std::move(a));
        return arrays_.back().get();
    }
    void* GetPr(const void* array) const override {
        return const_cast<unsigned char*>(static_cast<const HostArray*>(array)->bytes.data());
    }
    const std::size_t* GetDimensions(const void* array) const override {
        return static_cast<const HostArray*>(array)->dims.data();
    }
    void* CreateSingleMatrix(std::size_t rows, std::size_t columns) override {
        return Make<float>({rows, columns}, std::vector<float>(rows * columns, -1.0f));
    }

private:
    std::vector<std::unique_ptr<HostArray>> arrays_;
};

}  // namespace kelma_test
