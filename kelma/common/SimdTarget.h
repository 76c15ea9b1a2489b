// Function attributes that compile one function for a wider instruction set
// than the library's baseline (SSE2). Only functions reached through a
// KERNEL_VARIANT dispatch carry them, so nothing runs them on a processor
// without those instructions. Whole translation units are never compiled for
// a wider target: inline functions from shared headers would then be emitted
// with wide instructions and could be picked by the linker for every caller.
//
// None of them enables FMA: the kernels' results are defined by separate
// multiplies and adds (and contraction is off), identical in every variant.
#pragma once

#define KELMA_TARGET_SSSE3 __attribute__((target("ssse3")))
#define KELMA_TARGET_AVX2 __attribute__((target("avx2")))
#define KELMA_TARGET_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx2")))

// For the small helpers of a kernel's inner loop (unrolled trees, one vector
// step), which must end up inside the loop whatever the inliner estimates.
#define KELMA_ALWAYS_INLINE __attribute__((always_inline))

// Lockstep loops: `KELMA_LOCKSTEP(i, N) statement` runs the statement for
// i = 0 .. N-1, fully unrolled. A kernel that has N independent dependency
// chains writes each step for all of them before the next step, so that the
// processor's scheduler holds operations of every chain at once; written one
// chain after the other, the later chains' waiting operations fill it before
// the first chain finishes.
#define KELMA_LOCKSTEP(i, N) _Pragma("GCC unroll 16") for (int i = 0; i < (N); ++i)
