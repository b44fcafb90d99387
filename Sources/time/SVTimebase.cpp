// SPDX-License-Identifier: Apache-2.0
// Timebases: a timeline driven by a master clock or timebase at a rate,
// from an anchor pair; creation, reading, the rate and anchor setters with
// their notifications, and the master queries.
//
// The anchors are kept in a normal form: while the rate is not 0 the
// timebase anchor is zero and only the master anchor moves; while it is 0
// the timebase anchor holds the frozen time.  The setters follow a fixed
// sequence of reads of the master's time and of notifications; observers
// and clocks over a caller's block can see that sequence, so it is kept
// step for step (including SVTimebaseSetRateAndAnchorTime's provisional
// anchors, visible to observers of its rate notification).
//
// The state (rate and anchors) is replaced whole under the state mutex and
// read without a lock (see SVTimebaseInternal.h).  Notifications are posted
// after the mutex is released, so observers may call back in.

#include <Sorvel/SVSync.h>
#include <Sorvel/SVTimebase.h>

#include <cmath>
#include <cstring>
#include <initializer_list>

#include "core/SVLog.h"
#include "core/SVMutex.h"
#include "time/SVClockInternal.h"
#include "time/SVSyncInternal.h"
#include "time/SVTimeInternal.h"
#include "time/SVTimebaseInternal.h"

SV_LOG_MODULE("Sorvel/Sources/SVTimebase");

using sorvel::sync::Kind;
using sorvel::timebase::State;

extern "C" {
const CFStringRef kSVTimebaseNotification_EffectiveRateChanged = CFSTR("kSVTimebaseNotification_EffectiveRateChanged");
const CFStringRef kSVTimebaseNotification_TimeJumped = CFSTR("kSVTimebaseNotification_TimeJumped");
const CFStringRef kSVTimebaseNotificationKey_EventTime = CFSTR("kSVTimebaseNotificationKey_EventTime");
}

namespace {

using sorvel::time::kInvalid;
constexpr SVTime kZeroTime = {0, 1, kSVTimeFlags_Valid, 0};

void timebaseFinalize(CFTypeRef cf) noexcept;

const CFRuntimeClass kSVTimebaseClass = {0,       "SVTimebase", nullptr, nullptr, timebaseFinalize,
                                         nullptr, nullptr,      nullptr, nullptr};

OpaqueSVTimebase *asTimebase(CFTypeRef cf) noexcept {
    return sorvel::SVRuntimeClass<OpaqueSVTimebase>::cast(cf);
}

OSStatus missingTimebase(sorvel::SVLogSite site) noexcept {
    SV_LOG_SITE(site, 3, "timebase is NULL or not a timebase");
    return kSVTimebaseError_MissingRequiredParameter;
}

SVTime masterTime(const OpaqueSVTimebase *timebase) noexcept {
    return sorvel::sync::timeOf(timebase->master, timebase->masterKind);
}

// Replaces the state; the caller holds the state mutex.
void writeState(OpaqueSVTimebase *timebase, const State &state) noexcept {
    uint64_t words[sorvel::timebase::kStateWords];
    std::memcpy(words, &state, sizeof words);
    uint32_t sequence = __atomic_load_n(&timebase->sequence, __ATOMIC_RELAXED);
    __atomic_store_n(&timebase->sequence, sequence + 1, __ATOMIC_RELAXED);
    // Readers that see any word below also see the odd sequence.
    __atomic_thread_fence(__ATOMIC_RELEASE);
    for (size_t i = 0; i < sorvel::timebase::kStateWords; i++)
        __atomic_store_n(&timebase->state[i], words[i], __ATOMIC_RELAXED);
    __atomic_store_n(&timebase->sequence, sequence + 2, __ATOMIC_RELEASE);
}

void post(CFStringRef name, const void *timebase) noexcept {
    CFNotificationCenterPostNotification(CFNotificationCenterGetLocalCenter(), name, timebase, nullptr, true);
}

// A child re-posts its master's notifications as its own while it runs.
void masterDidPost(CFNotificationCenterRef, void *observer, CFNotificationName name, const void *, CFDictionaryRef) {
    auto *child = static_cast<OpaqueSVTimebase *>(observer);
    sorvel::timebase::masterChanged(child);
    if (sorvel::timebase::readRate(child) != 0.0) post(name, child);
}

void timebaseFinalize(CFTypeRef cf) noexcept {
    OpaqueSVTimebase *timebase = asTimebase(cf);
    if (timebase->observesMaster)
        CFNotificationCenterRemoveEveryObserver(CFNotificationCenterGetLocalCenter(), timebase);
    sorvel::timebase::destroyTimers(timebase);
    if (timebase->master != nullptr) CFRelease(timebase->master);
    XPMutexFree(timebase->timerMutex);
    XPMutexFree(timebase->stateMutex);
}

OSStatus createTimebase(CFAllocatorRef allocator, CFTypeRef master, SVTimebaseRef *timebaseOut, bool observeMaster,
                        const char *function) noexcept {
    if (timebaseOut == nullptr) {
        SV_LOG_FOR(function, 3, "timebaseOut is NULL");
        return kSVTimebaseError_MissingRequiredParameter;
    }
    *timebaseOut = nullptr;
    if (master == nullptr) {
        SV_LOG_FOR(function, 3, "master is NULL");
        return kSVTimebaseError_MissingRequiredParameter;
    }
    OpaqueSVTimebase *timebase = sorvel::timebase::gTimebaseClass.create(allocator);
    if (timebase == nullptr) {
        SV_LOG_FOR(function, 3, "allocation failed");
        return kSVTimebaseError_AllocationFailed;
    }
    timebase->master = CFRetain(master);
    timebase->masterKind = sorvel::sync::kindOf(master);
    timebase->observesMaster = false;
    timebase->sequence = 0;
    timebase->timers = nullptr;
    timebase->settingRateOnly = 0;
    timebase->timerMutex = XPMutexCreateNR();
    timebase->stateMutex = XPMutexCreateNR();
    // Stopped at 0 from the master's time now.
    writeState(timebase, State{0.0, masterTime(timebase), kZeroTime});
    *timebaseOut = timebase;

    if (observeMaster) {
        CFNotificationCenterRef center = CFNotificationCenterGetLocalCenter();
        for (CFStringRef name : {kSVTimebaseNotification_EffectiveRateChanged, kSVTimebaseNotification_TimeJumped})
            CFNotificationCenterAddObserver(center, timebase, masterDidPost, name, master,
                                            CFNotificationSuspensionBehaviorHold);
        timebase->observesMaster = true;
    }
    return 0;
}

// The rate routine.  With useCurrentTime the time runs on continuously
// from where it is; without it (SVTimebaseSetRateAndAnchorTime) no time is
// read and the anchors it leaves are provisional: a timebase stopped this
// way is frozen at the invalid time until the anchor routine sets it.
void setRate(OpaqueSVTimebase *timebase, double rate, bool useCurrentTime) noexcept {
    double oldRate;
    {
        sorvel::SVMutexGuard lock(timebase->stateMutex);
        State state = sorvel::timebase::readState(timebase);
        SVTime now = kInvalid;
        if (useCurrentTime) now = sorvel::timebase::timeAt(state, masterTime(timebase));
        oldRate = state.rate;
        if (rate == 0.0 && oldRate != 0.0) state.timebaseAnchor = now;
        if (rate != 0.0) state.timebaseAnchor = kZeroTime;
        state.rate = rate;
        if (useCurrentTime) {
            SVTime master = masterTime(timebase);
            if (rate == 0.0)
                state.timebaseAnchor = now;
            else
                state.masterAnchor = SVTimeSubtract(master, SVTimeMultiplyByFloat64(now, 1.0 / rate));
        }
        writeState(timebase, state);
    }
    if (rate == oldRate) return;
    // A stopped master keeps its children still whatever their own rates.
    if (timebase->masterKind == Kind::Timebase &&
        sorvel::sync::effectiveRate(static_cast<const OpaqueSVTimebase *>(timebase->master)) == 0.0)
        return;
    post(kSVTimebaseNotification_EffectiveRateChanged, timebase);
}

// The anchor routine: ties timebaseTime to masterTime.
void setAnchor(OpaqueSVTimebase *timebase, SVTime timebaseTime, SVTime masterTime) noexcept {
    State before, after;
    {
        sorvel::SVMutexGuard lock(timebase->stateMutex);
        before = after = sorvel::timebase::readState(timebase);
        if (after.rate == 0.0)
            after.timebaseAnchor = timebaseTime;
        else
            after.masterAnchor = SVTimeSubtract(masterTime, SVTimeMultiplyByFloat64(timebaseTime, 1.0 / after.rate));
        writeState(timebase, after);
    }
    // A running timebase reports a jump even when nothing moved.
    if (SVTimeCompare(after.masterAnchor, before.masterAnchor) == 0 &&
        SVTimeCompare(after.timebaseAnchor, before.timebaseAnchor) == 0 && sorvel::sync::effectiveRate(timebase) == 0.0)
        return;
    post(kSVTimebaseNotification_TimeJumped, timebase);
}

}  // namespace

namespace sorvel::timebase {

constinit SVRuntimeClass<OpaqueSVTimebase> gTimebaseClass{kSVTimebaseClass};

SVTime timeAtComposed(const State &state, SVTime masterTime) noexcept {
    return SVTimeAdd(SVTimeMultiplyByFloat64(SVTimeSubtract(masterTime, state.masterAnchor), state.rate),
                     state.timebaseAnchor);
}

// The composition above, with its common case (a master of one timescale
// of at least 65536, such as the host clock, both times numeric and
// non-zero) worked out inline: the subtraction is then a plain difference
// that keeps the master time's epoch and rounding flag, the multiplication
// needs no change of timescale, and adding a zero anchor returns the other
// operand whole.  Gives false, leaving `out` alone, for everything else.
[[gnu::always_inline]] inline bool timeAtCommonCase(const State &state, const SVTime &masterTime,
                                                    SVTime &out) noexcept {
    using sorvel::time::isNumeric;
    const SVTime &anchor = state.masterAnchor;
    if (__builtin_expect(!(isNumeric(masterTime) && isNumeric(anchor) && isNumeric(state.timebaseAnchor) &&
                           masterTime.timescale == anchor.timescale && masterTime.timescale >= 65536 &&
                           masterTime.value != 0 && anchor.value != 0),
                         0))
        return false;
    int64_t difference;
    if (__builtin_add_overflow(masterTime.value, sorvel::time::wrapNeg(anchor.value), &difference)) return false;
    double value = static_cast<double>(difference);
    double rate = state.rate;
    if (rate != 0 && sorvel::time::outsideProductLimit(value, std::fabs(rate))) return false;
    double product = value * rate;
    if (__builtin_expect(!(std::fabs(product) < 9223372036854775808.0), 0)) return false;
    SVTime scaled = {static_cast<int64_t>(product), masterTime.timescale,
                     kSVTimeFlags_Valid | (masterTime.flags & kSVTimeFlags_HasBeenRounded), masterTime.epoch};
    if (scaled.value == 0) {
        out = state.timebaseAnchor;
        return true;
    }
    if (state.timebaseAnchor.value == 0) {
        out = scaled;
        return true;
    }
    return false;
}

SVTime timeAt(const State &state, SVTime masterTime) noexcept {
    SVTime result;
    if (timeAtCommonCase(state, masterTime, result)) return result;
    return timeAtComposed(state, masterTime);
}

SVTime currentTime(const OpaqueSVTimebase *timebase) noexcept {
    State state = readState(timebase);
    // A clock master is read inline (its kind never changes).
    if (timebase->masterKind == Kind::Clock)
        return timeAt(state, sorvel::clock::currentTime(static_cast<const OpaqueSVClock *>(timebase->master)));
    return timeAt(state, masterTime(timebase));
}

}  // namespace sorvel::timebase

extern "C" {

CFTypeID SVTimebaseGetTypeID(void) noexcept {
    return sorvel::timebase::gTimebaseClass.typeID();
}

OSStatus SVTimebaseCreateWithMasterClock(CFAllocatorRef allocator, SVClockRef masterClock,
                                         SVTimebaseRef *timebaseOut) noexcept {
    return createTimebase(allocator, masterClock, timebaseOut, false, __func__);
}

OSStatus SVTimebaseCreateWithMasterTimebase(CFAllocatorRef allocator, SVTimebaseRef masterTimebase,
                                            SVTimebaseRef *timebaseOut) noexcept {
    return createTimebase(allocator, masterTimebase, timebaseOut, true, __func__);
}

SVTime SVTimebaseGetTime(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return kInvalid;
    // A timebase straight on the host clock, the common case, is worked
    // out here in one frame: the state, the clock and the arithmetic inline,
    // with the same results as currentTime.
    if (checkedTimebase->masterKind == sorvel::sync::Kind::Clock) {
        const auto *clock = static_cast<const OpaqueSVClock *>(checkedTimebase->master);
        if (clock->isHostClock && !__atomic_load_n(&clock->invalidated, __ATOMIC_RELAXED)) {
            State state = sorvel::timebase::readState(checkedTimebase);
            SVTime result;
            if (sorvel::timebase::timeAtCommonCase(state, sorvel::clock::hostTimeNow(), result)) return result;
        }
    }
    return sorvel::timebase::currentTime(checkedTimebase);
}

SVTime SVTimebaseGetTimeWithTimeScale(SVTimebaseRef timebase, SVTimeScale timescale,
                                      SVTimeRoundingMethod roundingMethod) noexcept {
    return SVTimeConvertScale(SVTimebaseGetTime(timebase), timescale, roundingMethod);
}

OSStatus SVTimebaseGetTimeAndRate(SVTimebaseRef timebase, SVTime *timeOut, Float64 *rateOut) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return missingTimebase(SV_HERE);
    State state = sorvel::timebase::readState(checkedTimebase);
    if (timeOut != nullptr) *timeOut = sorvel::timebase::timeAt(state, masterTime(checkedTimebase));
    if (rateOut != nullptr) *rateOut = state.rate;
    return 0;
}

Float64 SVTimebaseGetRate(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    return checkedTimebase != nullptr ? sorvel::timebase::readRate(checkedTimebase) : 0.0;
}

Float64 SVTimebaseGetEffectiveRate(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    return checkedTimebase != nullptr ? sorvel::sync::effectiveRate(checkedTimebase) : 0.0;
}

OSStatus SVTimebaseSetRate(SVTimebaseRef timebase, Float64 rate) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return missingTimebase(SV_HERE);
    setRate(checkedTimebase, rate, true);
    sorvel::timebase::rescheduleTimers(checkedTimebase);
    return 0;
}

OSStatus SVTimebaseSetTime(SVTimebaseRef timebase, SVTime time) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return missingTimebase(SV_HERE);
    setAnchor(checkedTimebase, time, masterTime(checkedTimebase));
    sorvel::timebase::rescheduleTimers(checkedTimebase);
    return 0;
}

OSStatus SVTimebaseSetAnchorTime(SVTimebaseRef timebase, SVTime timebaseTime, SVTime immediateMasterTime) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return missingTimebase(SV_HERE);
    setAnchor(checkedTimebase, timebaseTime, immediateMasterTime);
    sorvel::timebase::rescheduleTimers(checkedTimebase);
    return 0;
}

OSStatus SVTimebaseSetRateAndAnchorTime(SVTimebaseRef timebase, Float64 rate, SVTime timebaseTime,
                                        SVTime immediateMasterTime) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return missingTimebase(SV_HERE);
    // Children hear the rate before the anchors are set; they wait for the
    // jump that follows, and this timebase re-arms once, at the end.
    __atomic_add_fetch(&checkedTimebase->settingRateOnly, 1, __ATOMIC_RELEASE);
    setRate(checkedTimebase, rate, false);
    __atomic_sub_fetch(&checkedTimebase->settingRateOnly, 1, __ATOMIC_RELEASE);
    setAnchor(checkedTimebase, timebaseTime, immediateMasterTime);
    sorvel::timebase::rescheduleTimers(checkedTimebase);
    return 0;
}

SVClockOrTimebaseRef SVTimebaseGetMaster(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    return checkedTimebase != nullptr ? checkedTimebase->master : nullptr;
}

SVClockRef SVTimebaseGetMasterClock(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr || checkedTimebase->masterKind != Kind::Clock) return nullptr;
    return static_cast<SVClockRef>(const_cast<void *>(checkedTimebase->master));
}

SVTimebaseRef SVTimebaseGetMasterTimebase(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr || checkedTimebase->masterKind != Kind::Timebase) return nullptr;
    return asTimebase(checkedTimebase->master);
}

SVClockRef SVTimebaseGetUltimateMasterClock(SVTimebaseRef timebase) noexcept {
    OpaqueSVTimebase *checkedTimebase = sorvel::timebase::gTimebaseClass.checked(timebase);
    if (checkedTimebase == nullptr) return nullptr;
    return static_cast<SVClockRef>(const_cast<void *>(sorvel::sync::ultimateMasterClock(checkedTimebase)));
}

SVClockOrTimebaseRef SVTimebaseCopyMaster(SVTimebaseRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

SVClockRef SVTimebaseCopyMasterClock(SVTimebaseRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

SVTimebaseRef SVTimebaseCopyMasterTimebase(SVTimebaseRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

SVClockRef SVTimebaseCopyUltimateMasterClock(SVTimebaseRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

OSStatus SVTimebaseNotificationBarrier(SVTimebaseRef) noexcept {
    SV_NOT_YET_IMPLEMENTED_HERE();
}

}  // extern "C"
