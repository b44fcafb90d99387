// SPDX-License-Identifier: Apache-2.0
// Timers on a timebase's timeline: run-loop timers and timer dispatch
// sources that the timebase arms so that they fire when its time reaches a
// fire time.
//
// A fire time becomes a deadline on the host clock through the timebase's
// chain of masters: SVSyncConvertTime takes it to the ultimate master
// clock, and a clock other than the host clock is taken as running with
// the host clock from now.  Every change of rate or anchors (the
// timebase's own, or a master's, heard through its notifications)
// recomputes every deadline.
//
// Firing exactly once.  The platform counts a timer's firings, and a
// re-arm is conditional on that count not having moved since the timebase
// armed the timer: a timer that fired (or whose deadline passed before the
// re-arm took the platform's lock, which the platform then counts as a
// firing) is left alone and stays unarmed.  Giving a timer a new fire time
// is unconditional, but the platform first delivers a firing that was
// already due, so none is lost.
//
// Locks.  The registry mutex is held while the platform re-arms (a short,
// non-blocking call), so a re-arm never races a removal.  Waiting for a
// handler in progress happens only after the mutex is released, so a
// handler may call back into the timebase.

#include <CoreFoundation/CFRunLoop.h>
#include <Sorvel/SVSync.h>
#include <Sorvel/SVTimebase.h>
#include <dispatch/dispatch.h>

#include <mutex>
#include <unordered_map>
#include <vector>

#include "core/SVAllocationBoundary.h"
#include "core/SVLog.h"
#include "core/SVMutex.h"
#include "time/SVClockInternal.h"
#include "time/SVSyncInternal.h"
#include "time/SVTimebaseInternal.h"

SV_LOG_MODULE("Sorvel/Sources/SVTimebase");

namespace {

constexpr uint64_t kForever = DISPATCH_TIME_FOREVER;
// Where an unarmed run-loop timer waits: the year 4001.
constexpr double kDistantFuture = 63113904000.0;

enum class Arm : uint8_t { None, FireTime, Immediately };

struct Record {
    const void *timer;  // CFRunLoopTimerRef or dispatch_source_t, retained
    bool isSource;
    CFRunLoopRef runLoop;  // retained; run-loop timers only
    Arm arm;
    SVTime fireTime;
    uint64_t firings;   // the platform's count when last armed
    uint64_t deadline;  // host ns last asked for; 0: never armed; kForever: indefinitely
};

}  // namespace

namespace sorvel::timebase {
struct TimerRegistry {
    std::vector<Record> records;
};
}  // namespace sorvel::timebase

namespace {

using sorvel::timebase::TimerRegistry;

// Which timebase each added timer belongs to, so that a timer is added to
// one timebase only.
std::mutex gOwnersLock;
std::unordered_map<const void *, const OpaqueSVTimebase *> &owners() {
    static auto *map = new std::unordered_map<const void *, const OpaqueSVTimebase *>;
    return *map;
}

uint64_t hostNow() noexcept {
    return static_cast<uint64_t>(sorvel::clock::hostTimeNow().value);
}

// Host nanoseconds of a time on the host clock's timeline.
uint64_t hostNanoseconds(SVTime time) noexcept {
    if ((time.flags & kSVTimeFlags_Valid) == 0 || (time.flags & kSVTimeFlags_Indefinite)) return kForever;
    if (time.flags & kSVTimeFlags_PositiveInfinity) return kForever;
    if (time.flags & kSVTimeFlags_NegativeInfinity) return 1;
    SVTime ns = SVTimeConvertScale(time, 1000000000, kSVTimeRoundingMethod_RoundTowardPositiveInfinity);
    if ((ns.flags & kSVTimeFlags_Valid) == 0 || ns.value <= 0) return 1;
    return static_cast<uint64_t>(ns.value);
}

// The deadline at which the timeline reaches `fireTime`; 1 (long past)
// when it has already passed in the timeline's direction, kForever when
// the timeline stands still or never gets there.
uint64_t deadlineFor(OpaqueSVTimebase *timebase, SVTime fireTime) noexcept {
    if (fireTime.flags & kSVTimeFlags_PositiveInfinity) return kForever;
    double rate = sorvel::sync::effectiveRate(timebase);
    if (!(rate > 0.0) && !(rate < 0.0)) return kForever;  // 0 or NaN
    if (fireTime.flags & kSVTimeFlags_NegativeInfinity) return rate > 0.0 ? 1 : kForever;
    CFTypeRef clock = sorvel::sync::ultimateMasterClock(timebase);
    if (clock == nullptr) return kForever;
    SVTime onClock = SVSyncConvertTime(fireTime, timebase, clock);
    if ((onClock.flags & kSVTimeFlags_Valid) == 0) return kForever;
    if (clock == SVClockGetHostTimeClock()) return hostNanoseconds(onClock);
    // Another clock is taken as running with the host clock from now.
    uint64_t now = hostNow();
    SVTime clockNow = SVClockGetTime(static_cast<SVClockRef>(const_cast<void *>(clock)));
    SVTime ahead = SVTimeSubtract(onClock, clockNow);
    if ((ahead.flags & kSVTimeFlags_Valid) == 0) return kForever;
    if (ahead.flags & kSVTimeFlags_PositiveInfinity) return kForever;
    if (ahead.flags & kSVTimeFlags_NegativeInfinity) return 1;
    SVTime ns = SVTimeConvertScale(ahead, 1000000000, kSVTimeRoundingMethod_RoundTowardPositiveInfinity);
    if (ns.value <= 0) return 1;
    uint64_t step = static_cast<uint64_t>(ns.value);
    return step >= kForever - now ? kForever : now + step;
}

// Hands `deadline` to the platform; with `onlyIfUnfired`, only if the
// timer has not fired since it was armed.  Registry mutex held.  False
// when the timer had fired (it is then unarmed).
bool platformArm(Record &record, uint64_t deadline, bool onlyIfUnfired) noexcept {
    const uint64_t *expected = onlyIfUnfired ? &record.firings : nullptr;
    long applied;
    if (record.isSource) {
        applied = _dispatch_source_timer_rearm(static_cast<dispatch_source_t>(const_cast<void *>(record.timer)),
                                               deadline == 0 ? 1 : deadline, expected, 0, &record.firings);
    } else {
        double date = deadline == kForever ? kDistantFuture : _CFAbsoluteTimeFromHostTime(deadline);
        applied = _CFRunLoopTimerRearm(static_cast<CFRunLoopTimerRef>(const_cast<void *>(record.timer)), date, expected,
                                       0, &record.firings);
    }
    if (applied != 1) {
        record.arm = Arm::None;
        return false;
    }
    return true;
}

// Arms a record from its fire time (registry mutex held).
void arm(OpaqueSVTimebase *timebase, Record &record, bool onlyIfUnfired) noexcept {
    uint64_t deadline = kForever;
    switch (record.arm) {
        case Arm::None:
            break;
        case Arm::Immediately:
            deadline = hostNow();
            break;
        case Arm::FireTime:
            deadline = deadlineFor(timebase, record.fireTime);
            break;
    }
    if (platformArm(record, deadline, onlyIfUnfired) && record.arm != Arm::None) record.deadline = deadline;
}

void disarmAndDiscard(const Record &record) noexcept {
    if (record.isSource) {
        _dispatch_source_timer_rearm(static_cast<dispatch_source_t>(const_cast<void *>(record.timer)), kForever,
                                     nullptr, 1, nullptr);
    } else {
        _CFRunLoopTimerRearm(static_cast<CFRunLoopTimerRef>(const_cast<void *>(record.timer)), kDistantFuture, nullptr,
                             1, nullptr);
    }
}

void releaseRecord(const Record &record) noexcept {
    if (record.isSource) {
        dispatch_release(static_cast<dispatch_source_t>(const_cast<void *>(record.timer)));
    } else {
        CFRelease(record.timer);
        CFRelease(record.runLoop);
    }
}

Record *find(OpaqueSVTimebase *timebase, const void *timer) noexcept {
    if (timebase->timers == nullptr) return nullptr;
    for (Record &record : timebase->timers->records)
        if (record.timer == timer) return &record;
    return nullptr;
}

OSStatus missing(sorvel::SVLogSite site, const char *what) noexcept {
    SV_LOG_SITE(site, 3, "%s is NULL", what);
    return kSVTimebaseError_MissingRequiredParameter;
}

OSStatus notAdded(sorvel::SVLogSite site, const void *timer) noexcept {
    SV_LOG_SITE(site, 3, "timer %p is not added to this timebase", timer);
    return kSVTimebaseError_InvalidTimer;
}

// May throw std::bad_alloc, before anything is registered or retained; the
// entry points' boundary turns it into kSVTimebaseError_AllocationFailed.
OSStatus add(SVTimebaseRef timebase, const void *timer, bool isSource, CFRunLoopRef runLoop, const char *function) {
    OpaqueSVTimebase *tb = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (tb == nullptr) return missing({function, __LINE__}, "timebase");
    if (timer == nullptr) return missing({function, __LINE__}, isSource ? "timerSource" : "timer");
    if (!isSource && runLoop == nullptr) return missing({function, __LINE__}, "runloop");
    if (isSource) {
        if (!_dispatch_source_is_timer(static_cast<dispatch_source_t>(const_cast<void *>(timer)))) {
            SV_LOG_FOR(function, 3, "dispatch source %p is not a timer source", timer);
            return kSVTimebaseError_InvalidTimer;
        }
    } else if (CFGetTypeID(timer) != CFRunLoopTimerGetTypeID() || CFGetTypeID(runLoop) != CFRunLoopGetTypeID()) {
        SV_LOG_FOR(function, 3, "timer %p is not a run-loop timer, or runloop is not a run loop", timer);
        return kSVTimebaseError_InvalidTimer;
    }
    if (!isSource && !CFRunLoopTimerIsValid(static_cast<CFRunLoopTimerRef>(const_cast<void *>(timer)))) {
        SV_LOG_FOR(function, 3, "timer %p has been invalidated", timer);
        return kSVTimebaseError_InvalidTimer;
    }
    {
        std::lock_guard<std::mutex> guard(gOwnersLock);
        auto found = owners().find(timer);
        if (found != owners().end()) {
            if (found->second == tb) return 0;
            SV_LOG_FOR(function, 3, "timer %p is already added to another timebase", timer);
            return kSVTimebaseError_InvalidTimer;
        }
        owners().emplace(timer, tb);
    }
    sorvel::SVMutexGuard lock(tb->timerMutex);
    // Room for the record first, so that nothing below can fail half-way;
    // without it the timer is owned by no timebase again.
    try {
        if (tb->timers == nullptr) __atomic_store_n(&tb->timers, new TimerRegistry, __ATOMIC_RELEASE);
        tb->timers->records.reserve(tb->timers->records.size() + 1);
    } catch (const std::bad_alloc &) {
        std::lock_guard<std::mutex> guard(gOwnersLock);
        owners().erase(timer);
        throw;
    }
    Record record{timer, isSource, runLoop, Arm::None, sorvel::time::kInvalid, 0, 0};
    if (isSource) {
        dispatch_retain(static_cast<dispatch_source_t>(const_cast<void *>(timer)));
    } else {
        CFRetain(timer);
        CFRetain(runLoop);
    }
    platformArm(record, kForever, false);
    tb->timers->records.push_back(record);
    return 0;
}

OSStatus remove(SVTimebaseRef timebase, const void *timer, const char *function) noexcept {
    OpaqueSVTimebase *tb = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (tb == nullptr) return missing({function, __LINE__}, "timebase");
    if (timer == nullptr) return missing({function, __LINE__}, "timer");
    Record removed;
    {
        sorvel::SVMutexGuard lock(tb->timerMutex);
        Record *record = find(tb, timer);
        if (record == nullptr) return notAdded({function, __LINE__}, timer);
        removed = *record;
        tb->timers->records.erase(tb->timers->records.begin() + (record - tb->timers->records.data()));
    }
    {
        std::lock_guard<std::mutex> guard(gOwnersLock);
        owners().erase(timer);
    }
    // No one re-arms it now; wait out a handler in progress elsewhere.
    disarmAndDiscard(removed);
    releaseRecord(removed);
    return 0;
}

OSStatus setFireTime(SVTimebaseRef timebase, const void *timer, Arm how, SVTime fireTime,
                     const char *function) noexcept {
    OpaqueSVTimebase *tb = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (tb == nullptr) return missing({function, __LINE__}, "timebase");
    if (timer == nullptr) return missing({function, __LINE__}, "timer");
    sorvel::SVMutexGuard lock(tb->timerMutex);
    Record *record = find(tb, timer);
    if (record == nullptr) return notAdded({function, __LINE__}, timer);
    if (how == Arm::FireTime &&
        ((fireTime.flags & kSVTimeFlags_Valid) == 0 || (fireTime.flags & kSVTimeFlags_Indefinite) != 0)) {
        SV_LOG_FOR(function, 4, "fire time is invalid or indefinite: the timer is disarmed");
        how = Arm::None;
    }
    record->arm = how;
    record->fireTime = fireTime;
    arm(tb, *record, false);
    return 0;
}

OSStatus getDeadline(SVTimebaseRef timebase, const void *timer, SVTime *deadlineOut, const char *function) noexcept {
    OpaqueSVTimebase *tb = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (tb == nullptr) return missing({function, __LINE__}, "timebase");
    if (timer == nullptr) return missing({function, __LINE__}, "timer");
    if (deadlineOut == nullptr) return missing({function, __LINE__}, "deadlineOut");
    sorvel::SVMutexGuard lock(tb->timerMutex);
    Record *record = find(tb, timer);
    if (record == nullptr) return notAdded({function, __LINE__}, timer);
    if (record->deadline == 0)
        *deadlineOut = kSVTimeInvalid;
    else if (record->deadline == kForever)
        *deadlineOut = kSVTimePositiveInfinity;
    else
        *deadlineOut = SVTimeMake(static_cast<int64_t>(record->deadline), 1000000000);
    return 0;
}

}  // namespace

namespace sorvel::timebase {

void rescheduleTimers(OpaqueSVTimebase *timebase) noexcept {
    if (__atomic_load_n(&timebase->timers, __ATOMIC_ACQUIRE) == nullptr) return;
    sorvel::SVMutexGuard lock(timebase->timerMutex);
    for (Record &record : timebase->timers->records)
        if (record.arm == Arm::FireTime) arm(timebase, record, true);
}

void masterChanged(OpaqueSVTimebase *timebase) noexcept {
    for (const OpaqueSVTimebase *x = timebase; x->masterKind == sync::Kind::Timebase;) {
        x = static_cast<const OpaqueSVTimebase *>(x->master);
        if (__atomic_load_n(&x->settingRateOnly, __ATOMIC_ACQUIRE) != 0) return;
    }
    rescheduleTimers(timebase);
}

void destroyTimers(OpaqueSVTimebase *timebase) noexcept {
    TimerRegistry *registry = timebase->timers;
    if (registry == nullptr) return;
    timebase->timers = nullptr;
    for (const Record &record : registry->records) {
        {
            std::lock_guard<std::mutex> guard(gOwnersLock);
            owners().erase(record.timer);
        }
        disarmAndDiscard(record);
        releaseRecord(record);
    }
    delete registry;
}

}  // namespace sorvel::timebase

extern "C" {

OSStatus SVTimebaseAddTimer(SVTimebaseRef timebase, CFRunLoopTimerRef timer, CFRunLoopRef runloop) noexcept try {
    return add(timebase, timer, false, runloop, __func__);
}
SV_ALLOCATION_BOUNDARY(kSVTimebaseError_AllocationFailed)

OSStatus SVTimebaseRemoveTimer(SVTimebaseRef timebase, CFRunLoopTimerRef timer) noexcept {
    return remove(timebase, timer, __func__);
}

OSStatus SVTimebaseSetTimerNextFireTime(SVTimebaseRef timebase, CFRunLoopTimerRef timer, SVTime fireTime,
                                        uint32_t) noexcept {
    return setFireTime(timebase, timer, Arm::FireTime, fireTime, __func__);
}

OSStatus SVTimebaseSetTimerToFireImmediately(SVTimebaseRef timebase, CFRunLoopTimerRef timer) noexcept {
    return setFireTime(timebase, timer, Arm::Immediately, kSVTimeInvalid, __func__);
}

OSStatus SVTimebaseAddTimerDispatchSource(SVTimebaseRef timebase, dispatch_source_t timerSource) noexcept try {
    return add(timebase, timerSource, true, nullptr, __func__);
}
SV_ALLOCATION_BOUNDARY(kSVTimebaseError_AllocationFailed)

OSStatus SVTimebaseRemoveTimerDispatchSource(SVTimebaseRef timebase, dispatch_source_t timerSource) noexcept {
    return remove(timebase, timerSource, __func__);
}

OSStatus SVTimebaseSetTimerDispatchSourceNextFireTime(SVTimebaseRef timebase, dispatch_source_t timerSource,
                                                      SVTime fireTime, uint32_t) noexcept {
    return setFireTime(timebase, timerSource, Arm::FireTime, fireTime, __func__);
}

OSStatus SVTimebaseSetTimerDispatchSourceToFireImmediately(SVTimebaseRef timebase,
                                                           dispatch_source_t timerSource) noexcept {
    return setFireTime(timebase, timerSource, Arm::Immediately, kSVTimeInvalid, __func__);
}

OSStatus SVTimebaseGetTimerDeadline(SVTimebaseRef timebase, CFRunLoopTimerRef timer, SVTime *deadlineOut) noexcept {
    return getDeadline(timebase, timer, deadlineOut, __func__);
}

OSStatus SVTimebaseGetTimerDispatchSourceDeadline(SVTimebaseRef timebase, dispatch_source_t timerSource,
                                                  SVTime *deadlineOut) noexcept {
    return getDeadline(timebase, timerSource, deadlineOut, __func__);
}

}  // extern "C"
