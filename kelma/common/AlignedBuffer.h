// Owning, 16-byte aligned array for everything SSE code reads with aligned loads
// (or aligned to `Alignment` bytes, a power of two, for wider vectors).
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

constexpr std::size_t kSimdAlignment = 16;

// Deep-copying owner of `size` trivially copyable elements, zero-initialised,
// starting on a 16-byte boundary. An empty buffer holds a null pointer.
template <class T, std::size_t Alignment = kSimdAlignment>
class AlignedBuffer {
    static_assert(std::is_trivially_copyable<T>::value, "AlignedBuffer holds plain data");
    static_assert(Alignment >= kSimdAlignment && (Alignment & (Alignment - 1)) == 0, "a power of two, 16 or more");

public:
    AlignedBuffer() = default;
    explicit AlignedBuffer(std::size_t size) : data_(Allocate(size)), size_(size) {
        if (size_ != 0) std::memset(static_cast<void*>(data_), 0, size_ * sizeof(T));
    }
    // Without the zero fill, for buffers the owner writes completely before
    // reading (the memory is touched first by whoever writes it).
    struct Uninitialised {};
    AlignedBuffer(Uninitialised, std::size_t size) : data_(Allocate(size)), size_(size) {}
    AlignedBuffer(const T* source, std::size_t size) : data_(Allocate(size)), size_(size) {
        if (size_ != 0) std::memcpy(static_cast<void*>(data_), source, size_ * sizeof(T));
    }
    AlignedBuffer(const AlignedBuffer& other) : AlignedBuffer(other.data_, other.size_) {}
    AlignedBuffer(AlignedBuffer&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    AlignedBuffer& operator=(const AlignedBuffer& other) {
        if (this != &other) {
            AlignedBuffer copy(other);
            swap(copy);
        }
        return *this;
    }
    AlignedBuffer& operator=(AlignedBuffer&& other) noexcept {
        AlignedBuffer moved(std::move(other));
        swap(moved);
        return *this;
    }
    ~AlignedBuffer() { std::free(data_); }

    void swap(AlignedBuffer& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
    }

    T* data() noexcept { return data_; }
    const T* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    T& operator[](std::size_t i) noexcept { return data_[i]; }
    const T& operator[](std::size_t i) const noexcept { return data_[i]; }

private:
    static T* Allocate(std::size_t size) {
        if (size == 0) return nullptr;
        if (size > (static_cast<std::size_t>(-1) - Alignment) / sizeof(T)) throw std::bad_alloc();
        // aligned_alloc wants a size that is a multiple of the alignment.
        std::size_t bytes = (size * sizeof(T) + Alignment - 1) / Alignment * Alignment;
        void* p = std::aligned_alloc(Alignment, bytes);
        if (p == nullptr) throw std::bad_alloc();
        return static_cast<T*>(p);
    }

    T* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace KELMA_NAMESPACE
