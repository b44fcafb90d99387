// SPDX-License-Identifier: Apache-2.0
/*
 * One-time initialisation.
 *
 * A predicate moves 0 -> running -> ~0.  The "running" value is the address
 * of a thread-local byte of the thread running the function: it is never 0
 * or ~0, it is unique among live threads, and it lets a thread that finds
 * its own mark in the predicate recognise a recursive call instead of
 * waiting for itself forever.
 *
 * Waiters of every predicate share one mutex and condition variable.  First
 * calls are rare and short, so a per-predicate wait queue would buy nothing;
 * the completing thread stores ~0 under the mutex, so a waiter that checked
 * the predicate under the mutex cannot miss the wake-up.
 */
#include <XPLog/XPLog.h>
#include <dispatch/dispatch.h>
#include <pthread.h>
#include <stdio.h>

namespace {

constexpr const char *kSourcePath = "Sorvel/platform/dispatch";
constexpr intptr_t kDone = ~static_cast<intptr_t>(0);

pthread_mutex_t gOnceLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gOnceCompleted = PTHREAD_COND_INITIALIZER;

thread_local char tRunningMark;

[[noreturn]] void fatal(const char *function, int line, const char *message) {
    XPLogX(2, function, kSourcePath, line, message);
    XPAbortWithBacktrace();
}

void invokeBlock(void *context) {
    reinterpret_cast<dispatch_block_t>(context)();
}

}  // namespace

extern "C" void dispatch_once_f(dispatch_once_t *predicate, void *context, dispatch_function_t function) noexcept {
    if (predicate == nullptr) fatal("dispatch_once_f", __LINE__, "BUG: NULL predicate");
    // The acquire pairs with the release below, so a caller that sees ~0
    // also sees everything the function wrote.
    if (__atomic_load_n(predicate, __ATOMIC_ACQUIRE) == kDone) return;
    if (function == nullptr) fatal("dispatch_once_f", __LINE__, "BUG: NULL function");

    const intptr_t mark = reinterpret_cast<intptr_t>(&tRunningMark);
    intptr_t observed = 0;
    if (__atomic_compare_exchange_n(predicate, &observed, mark, false, __ATOMIC_ACQUIRE, __ATOMIC_ACQUIRE)) {
        function(context);
        pthread_mutex_lock(&gOnceLock);
        __atomic_store_n(predicate, kDone, __ATOMIC_RELEASE);
        pthread_cond_broadcast(&gOnceCompleted);
        pthread_mutex_unlock(&gOnceLock);
        return;
    }
    if (observed == kDone) return;
    if (observed == mark) {
        char message[160];
        snprintf(message, sizeof message,
                 "BUG: dispatch_once called recursively on predicate %p from inside its own function",
                 static_cast<void *>(predicate));
        fatal("dispatch_once_f", __LINE__, message);
    }

    pthread_mutex_lock(&gOnceLock);
    while (__atomic_load_n(predicate, __ATOMIC_ACQUIRE) != kDone) pthread_cond_wait(&gOnceCompleted, &gOnceLock);
    pthread_mutex_unlock(&gOnceLock);
}

extern "C" void dispatch_once(dispatch_once_t *predicate, dispatch_block_t block) noexcept {
    if (predicate != nullptr && __atomic_load_n(predicate, __ATOMIC_ACQUIRE) == kDone) return;
    if (block == nullptr) fatal("dispatch_once", __LINE__, "BUG: NULL block");
    // The block runs before this call returns, so it needs no copy.
    dispatch_once_f(predicate, reinterpret_cast<void *>(block), invokeBlock);
}
