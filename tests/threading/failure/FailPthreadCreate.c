/* LD_PRELOAD shim for the thread-failure tests: pthread_create succeeds for
 * the number of calls set by kelma_test_fail_threads_after(k), then fails with
 * EAGAIN (as under `ulimit -u`) until it is set again; -1 (the start value)
 * never fails. A test finds the control function with dlsym, so a run without
 * the shim is detected instead of passing. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>

typedef int (*create_fn)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

static atomic_long g_remaining = -1;

__attribute__((visibility("default"))) void kelma_test_fail_threads_after(long k) {
    atomic_store(&g_remaining, k);
}

__attribute__((visibility("default"))) int pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                                          void* (*start)(void*), void* arg) {
    static create_fn real = NULL;
    if (real == NULL) real = (create_fn)dlsym(RTLD_NEXT, "pthread_create");
    long left = atomic_load(&g_remaining);
    while (left >= 0) {
        if (left == 0) return EAGAIN;
        if (atomic_compare_exchange_weak(&g_remaining, &left, left - 1)) break;
    }
    return real(thread, attr, start, arg);
}
