// FNV-1a (64 bit) as 16 lower-case hex digits, written from its definition
// (offset basis 14695981039346656037, prime 1099511628211) rather than taken
// from the model-file reader it checks: the tests and the model-file fuzzer
// use it to seal deliberately altered files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kelma_test {

inline std::string Fnv1a64Hex(const std::string& bytes) {
    std::uint64_t h = 14695981039346656037ull;
    for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
    return buf;
}

}  // namespace kelma_test
