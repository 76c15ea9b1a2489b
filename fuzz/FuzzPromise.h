// A harness's promise: when it does not hold, the harness says which and
// aborts, which libFuzzer reports as a finding with the input that broke it.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void Require(bool ok, const char* promise) {
    if (ok) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}
