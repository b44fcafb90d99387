/* SPDX-License-Identifier: Apache-2.0 */
// The scoped guard every module takes its XPMutex with: acquired on
// construction, released when the scope ends, on every return path.
//
//     SVMutexGuard guard(state->lock);
//
// Everything is inline and the guard holds only the mutex's address, so a
// guarded section costs exactly the acquire and release calls it replaces.
#ifndef SORVEL_SOURCES_SVMUTEX_H
#define SORVEL_SOURCES_SVMUTEX_H

#include <XPLog/XPLog.h>

namespace sorvel {

class [[nodiscard]] SVMutexGuard {
public:
    explicit SVMutexGuard(XPMutex *mutex) noexcept : mutex_(mutex) { XPMutexAcquire(mutex_); }
    ~SVMutexGuard() { XPMutexRelease(mutex_); }
    SVMutexGuard(const SVMutexGuard &) = delete;
    SVMutexGuard &operator=(const SVMutexGuard &) = delete;

private:
    XPMutex *mutex_;
};

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVMUTEX_H
