// SPDX-License-Identifier: Apache-2.0
// Run loops, their timers, and absolute time.
//
// One process-wide mutex guards every run loop's timer list and every
// timer's state; each run loop sleeps on its own condition variable (on
// CLOCK_MONOTONIC, with an absolute deadline) under that mutex.  Timers
// are few and callouts are rare next to the work they start, so one lock
// keeps "is it due / advance / re-arm" atomic without lock ordering.
// Callouts run with the mutex released; a second condition variable lets
// a re-arm with `discard` wait for a callout in progress on another thread.
#include <Block.h>
#include <CoreFoundation/CFRunLoop.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <vector>

#include "CFInternal.h"

#define CF_SOURCE_PATH "CoreFoundation/CFRunLoop"

extern "C" {
const CFRunLoopMode kCFRunLoopDefaultMode = CFSTR("kCFRunLoopDefaultMode");
const CFRunLoopMode kCFRunLoopCommonModes = CFSTR("kCFRunLoopCommonModes");
}

namespace {

XPLogModule gRunLoopLog;
constexpr uint64_t kNever = ~uint64_t{0};

uint64_t hostNow() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

double gOffset;  // absolute time - host seconds
pthread_once_t gOffsetOnce = PTHREAD_ONCE_INIT;

void computeOffset() {
    timespec wall, mono;
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_MONOTONIC, &mono);
    double wallSeconds = static_cast<double>(wall.tv_sec) + wall.tv_nsec * 1e-9 - kCFAbsoluteTimeIntervalSince1970;
    double monoSeconds = static_cast<double>(mono.tv_sec) + mono.tv_nsec * 1e-9;
    gOffset = wallSeconds - monoSeconds;
}

double offset() {
    pthread_once(&gOffsetOnce, computeOffset);
    return gOffset;
}

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gCalloutDone = PTHREAD_COND_INITIALIZER;

class Locked {
public:
    Locked() { pthread_mutex_lock(&gLock); }
    ~Locked() { pthread_mutex_unlock(&gLock); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
};

}  // namespace

struct __CFRunLoopTimer;

struct RunLoopState {
    pthread_cond_t wake;
    std::vector<__CFRunLoopTimer *> timers;  // each retained
    bool stopRequested = false;
    bool woken = false;
    bool waiting = false;
    RunLoopState() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&wake, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~RunLoopState() { pthread_cond_destroy(&wake); }
};

struct __CFRunLoop {
    CFRuntimeBase base;
    RunLoopState *state;
};

struct TimerState {
    uint64_t deadline;  // host ns; kNever
    double fireDate;
    double interval;
    CFOptionFlags flags;
    CFIndex order;
    CFRunLoopTimerCallBack callout;
    void (^block)(CFRunLoopTimerRef);
    CFRunLoopTimerContext context;
    bool valid = true;
    bool owed = false;  // a firing counted by a re-arm, callout not yet made
    uint64_t firings = 0;
    int calloutsRunning = 0;
    pthread_t calloutThread{};
    __CFRunLoop *runLoop = nullptr;  // not retained: it retains the timer
    std::vector<CFStringRef> modes;  // retained
};

struct __CFRunLoopTimer {
    CFRuntimeBase base;
    TimerState *state;
};

namespace {

void logError(const char *function, int line, const char *message) {
    if (gRunLoopLog.threshold != 0 ? gRunLoopLog.threshold < 3
                                   : !XPLogDetermineLogLevel(3, &gRunLoopLog, CF_SOURCE_PATH, function, line))
        return;
    XPLogS(3, &gRunLoopLog, function, CF_SOURCE_PATH, line, "%s", message);
}

uint64_t deadlineOf(double absolute) {
    if (std::isnan(absolute)) return kNever;
    double seconds = absolute - offset();
    if (seconds <= 0) return 0;
    double ns = seconds * 1e9;
    if (ns >= 18446744073709549568.0) return kNever;
    return static_cast<uint64_t>(ns);
}

void runLoopFinalize(CFTypeRef cf);
void timerFinalize(CFTypeRef cf);

const CFRuntimeClass kRunLoopClass = {0,       "CFRunLoop", nullptr, nullptr, runLoopFinalize,
                                      nullptr, nullptr,     nullptr, nullptr};
const CFRuntimeClass kTimerClass = {0,       "CFRunLoopTimer", nullptr, nullptr, timerFinalize,
                                    nullptr, nullptr,          nullptr, nullptr};
CFTypeID gRunLoopTypeID, gTimerTypeID;
pthread_once_t gClassesOnce = PTHREAD_ONCE_INIT;

void registerClasses() {
    gRunLoopTypeID = _CFRuntimeRegisterClass(&kRunLoopClass);
    gTimerTypeID = _CFRuntimeRegisterClass(&kTimerClass);
}

CFTypeID runLoopTypeID() {
    pthread_once(&gClassesOnce, registerClasses);
    return gRunLoopTypeID;
}

CFTypeID timerTypeID() {
    pthread_once(&gClassesOnce, registerClasses);
    return gTimerTypeID;
}

bool isRunLoop(CFTypeRef cf) {
    return cf != nullptr && CFGetTypeID(cf) == runLoopTypeID();
}

bool isTimer(CFTypeRef cf) {
    return cf != nullptr && CFGetTypeID(cf) == timerTypeID();
}

void releaseInfo(CFRunLoopTimerContext &context) {
    if (context.release != nullptr && context.info != nullptr) context.release(context.info);
    context.info = nullptr;
    context.release = nullptr;
}

// Detaches a timer from its run loop; lock held.  Returns the run loop's
// reference and the modes to release once the lock is dropped.
struct Detached {
    CFRunLoopTimerRef timer = nullptr;
    std::vector<CFStringRef> modes;
};

Detached detachLocked(__CFRunLoopTimer *timer) {
    Detached detached;
    TimerState *t = timer->state;
    if (t->runLoop == nullptr) return detached;
    auto &list = t->runLoop->state->timers;
    for (auto it = list.begin(); it != list.end(); ++it)
        if (*it == timer) {
            list.erase(it);
            break;
        }
    pthread_cond_signal(&t->runLoop->state->wake);
    t->runLoop = nullptr;
    detached.modes.swap(t->modes);
    detached.timer = timer;
    return detached;
}

void dropDetached(Detached &detached) {
    for (CFStringRef mode : detached.modes) CFRelease(mode);
    if (detached.timer != nullptr) CFRelease(detached.timer);
}

void runLoopFinalize(CFTypeRef cf) {
    auto *rl = static_cast<__CFRunLoop *>(const_cast<void *>(cf));
    std::vector<Detached> all;
    {
        Locked locked;
        while (!rl->state->timers.empty()) all.push_back(detachLocked(rl->state->timers.front()));
    }
    for (Detached &d : all) dropDetached(d);
    delete rl->state;
}

void timerFinalize(CFTypeRef cf) {
    auto *timer = static_cast<__CFRunLoopTimer *>(const_cast<void *>(cf));
    TimerState *t = timer->state;
    if (t == nullptr) return;
    releaseInfo(t->context);
    if (t->block != nullptr) _Block_release(reinterpret_cast<const void *>(t->block));
    for (CFStringRef mode : t->modes) CFRelease(mode);
    delete t;
}

__CFRunLoop *makeRunLoop() {
    auto *rl = static_cast<__CFRunLoop *>(
        const_cast<void *>(_CFRuntimeCreateInstance(nullptr, runLoopTypeID(), sizeof(RunLoopState *), nullptr)));
    if (rl == nullptr) CF_FATAL("cannot allocate a run loop");
    rl->state = new RunLoopState;
    return rl;
}

bool isMainThread() {
    return getpid() == static_cast<pid_t>(syscall(SYS_gettid));
}

__CFRunLoop *gMainRunLoop;
pthread_once_t gMainOnce = PTHREAD_ONCE_INIT;

void makeMainRunLoop() {
    gMainRunLoop = makeRunLoop();
}

struct ThreadRunLoop {
    __CFRunLoop *runLoop = nullptr;
    ~ThreadRunLoop() {
        if (runLoop != nullptr) CFRelease(runLoop);
    }
};
thread_local ThreadRunLoop tRunLoop;

// A timer is in the mode being run when it was added for that mode, or
// for the common modes while the default mode runs.
bool inMode(const TimerState *t, CFStringRef mode) {
    for (CFStringRef m : t->modes) {
        if (CFEqual(m, mode)) return true;
        if (CFEqual(m, kCFRunLoopCommonModes) && CFEqual(mode, kCFRunLoopDefaultMode)) return true;
    }
    return false;
}

// Moves a due timer's date on as a firing does; lock held.  A one-shot
// timer keeps its date (it is invalidated after its callout).
void advanceLocked(TimerState *t, uint64_t now) {
    t->firings++;
    if (t->interval <= 0) {
        t->deadline = kNever;
        return;
    }
    double late = now > t->deadline ? (now - t->deadline) * 1e-9 : 0.0;
    double steps = std::floor(late / t->interval) + 1;
    t->fireDate += steps * t->interval;
    t->deadline = deadlineOf(t->fireDate);
}

void invalidate(__CFRunLoopTimer *timer) {
    Detached detached;
    CFRunLoopTimerContext context{};
    {
        Locked locked;
        TimerState *t = timer->state;
        if (!t->valid) return;
        t->valid = false;
        t->owed = false;
        t->deadline = kNever;
        detached = detachLocked(timer);
        context = t->context;
        t->context.info = nullptr;
        t->context.release = nullptr;
    }
    releaseInfo(context);
    dropDetached(detached);
}

// While a run loop runs, its thread's timed waits are its timers' deadlines:
// the kernel's default timer slack would defer each of them by up to 50 us,
// so the slack is 1 ns for the run and the caller's own value afterwards.
class PreciseTimedWaits {
public:
    PreciseTimedWaits() noexcept : saved_(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0)) {
        if (saved_ > 1) prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    }
    ~PreciseTimedWaits() {
        if (saved_ > 1) prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(saved_), 0, 0, 0);
    }
    PreciseTimedWaits(const PreciseTimedWaits &) = delete;
    PreciseTimedWaits &operator=(const PreciseTimedWaits &) = delete;

private:
    int saved_;
};

// What the timers in `mode` ask of the run loop now: the earliest one that
// is due (or owed a firing), else the next deadline.  `any` is false when
// the mode has no timer at all.  Lock held.
struct TimerScan {
    __CFRunLoopTimer *due = nullptr;
    uint64_t next = kNever;
    bool any = false;
};

TimerScan scanTimersLocked(const RunLoopState *s, CFStringRef mode, uint64_t now) {
    TimerScan scan;
    for (__CFRunLoopTimer *timer : s->timers) {
        TimerState *t = timer->state;
        if (!inMode(t, mode)) continue;
        scan.any = true;
        if (t->owed || t->deadline <= now) {
            if (scan.due == nullptr || t->deadline < scan.due->state->deadline) scan.due = timer;
        } else if (t->deadline < scan.next) {
            scan.next = t->deadline;
        }
    }
    return scan;
}

// Fires `due` once: moves its date on, runs its callout with the lock
// released (the callout may add, invalidate or release timers, this one
// included) and invalidates a one-shot timer after it.  Called and returns
// with the lock held.
void fireTimerLocked(__CFRunLoopTimer *due, uint64_t now) {
    TimerState *t = due->state;
    if (t->owed)
        t->owed = false;
    else
        advanceLocked(t, now);
    const bool oneShot = t->interval <= 0;
    t->calloutsRunning++;
    t->calloutThread = pthread_self();
    void *info = t->context.info;  // invalidation may clear it meanwhile
    CFRetain(due);
    pthread_mutex_unlock(&gLock);
    if (t->block != nullptr)
        t->block(due);
    else
        t->callout(due, info);
    pthread_mutex_lock(&gLock);
    t->calloutsRunning--;
    pthread_cond_broadcast(&gCalloutDone);
    pthread_mutex_unlock(&gLock);
    if (oneShot) invalidate(due);
    CFRelease(due);
    pthread_mutex_lock(&gLock);
}

// Sleeps until `until` (a monotonic deadline, kNever for no limit) or a
// wake-up.  Lock held.
void waitLocked(RunLoopState *s, uint64_t until) {
    s->waiting = true;
    if (until == kNever) {
        pthread_cond_wait(&s->wake, &gLock);
    } else {
        timespec ts = {static_cast<time_t>(until / 1000000000u), static_cast<long>(until % 1000000000u)};
        pthread_cond_timedwait(&s->wake, &gLock, &ts);
    }
    s->waiting = false;
    s->woken = false;
}

// The monotonic time a run of `seconds` from `start` ends at: `start` itself
// for none, kNever for a span too long to count.
uint64_t runLimit(uint64_t start, CFTimeInterval seconds) {
    if (seconds >= 9.2e9) return kNever;
    return seconds <= 0 ? start : start + static_cast<uint64_t>(seconds * 1e9);
}

}  // namespace

extern "C" {

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void) noexcept {
    return _CFAbsoluteTimeFromHostTime(hostNow());
}

CFAbsoluteTime _CFAbsoluteTimeFromHostTime(uint64_t hostNanoseconds) noexcept {
    return static_cast<double>(hostNanoseconds) * 1e-9 + offset();
}

uint64_t _CFHostTimeFromAbsoluteTime(CFAbsoluteTime absoluteTime) noexcept {
    return deadlineOf(absoluteTime);
}

CFTypeID CFRunLoopGetTypeID(void) noexcept {
    return runLoopTypeID();
}

CFTypeID CFRunLoopTimerGetTypeID(void) noexcept {
    return timerTypeID();
}

CFRunLoopRef CFRunLoopGetMain(void) noexcept {
    pthread_once(&gMainOnce, makeMainRunLoop);
    return gMainRunLoop;
}

CFRunLoopRef CFRunLoopGetCurrent(void) noexcept {
    if (isMainThread()) return CFRunLoopGetMain();
    if (tRunLoop.runLoop == nullptr) tRunLoop.runLoop = makeRunLoop();
    return tRunLoop.runLoop;
}

CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean returnAfterSourceHandled) noexcept {
    if (mode == nullptr) {
        logError("CFRunLoopRunInMode", __LINE__, "mode is NULL");
        return kCFRunLoopRunFinished;
    }
    __CFRunLoop *rl = CFRunLoopGetCurrent();
    RunLoopState *s = rl->state;
    PreciseTimedWaits precise;
    const uint64_t limit = runLimit(hostNow(), seconds);
    pthread_mutex_lock(&gLock);
    CFRunLoopRunResult result;
    for (;;) {
        if (s->stopRequested) {
            s->stopRequested = false;
            result = kCFRunLoopRunStopped;
            break;
        }
        const uint64_t now = hostNow();
        const TimerScan scan = scanTimersLocked(s, mode, now);
        if (!scan.any) {
            result = kCFRunLoopRunFinished;
            break;
        }
        if (scan.due != nullptr) {
            fireTimerLocked(scan.due, now);
            if (returnAfterSourceHandled) {
                result = kCFRunLoopRunHandledSource;
                break;
            }
            continue;
        }
        if (now >= limit) {
            result = kCFRunLoopRunTimedOut;
            break;
        }
        if (s->woken) {
            s->woken = false;
            continue;
        }
        waitLocked(s, scan.next < limit ? scan.next : limit);
    }
    pthread_mutex_unlock(&gLock);
    return result;
}

void CFRunLoopRun(void) noexcept {
    for (;;) {
        CFRunLoopRunResult result = CFRunLoopRunInMode(kCFRunLoopDefaultMode, 1.0e10, false);
        if (result == kCFRunLoopRunStopped || result == kCFRunLoopRunFinished) return;
    }
}

void CFRunLoopStop(CFRunLoopRef rl) noexcept {
    if (!isRunLoop(rl)) {
        logError("CFRunLoopStop", __LINE__, "run loop is NULL or not a run loop");
        return;
    }
    Locked locked;
    rl->state->stopRequested = true;
    pthread_cond_signal(&rl->state->wake);
}

void CFRunLoopWakeUp(CFRunLoopRef rl) noexcept {
    if (!isRunLoop(rl)) {
        logError("CFRunLoopWakeUp", __LINE__, "run loop is NULL or not a run loop");
        return;
    }
    Locked locked;
    rl->state->woken = true;
    pthread_cond_signal(&rl->state->wake);
}

Boolean CFRunLoopIsWaiting(CFRunLoopRef rl) noexcept {
    if (!isRunLoop(rl)) return false;
    Locked locked;
    return rl->state->waiting;
}

static CFRunLoopTimerRef createTimer(CFAllocatorRef allocator, CFAbsoluteTime fireDate, CFTimeInterval interval,
                                     CFOptionFlags flags, CFIndex order, CFRunLoopTimerCallBack callout,
                                     void (^block)(CFRunLoopTimerRef), CFRunLoopTimerContext *context) {
    auto *timer = static_cast<__CFRunLoopTimer *>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, timerTypeID(), sizeof(TimerState *), nullptr)));
    if (timer == nullptr) return nullptr;
    TimerState *t = new TimerState;
    t->fireDate = fireDate;
    t->deadline = deadlineOf(fireDate);
    t->interval = std::isnan(interval) ? 0.0 : interval;
    t->flags = flags;
    t->order = order;
    t->callout = callout;
    t->block = block;
    t->context = {};
    if (context != nullptr) {
        t->context = *context;
        if (context->retain != nullptr && context->info != nullptr)
            t->context.info = const_cast<void *>(context->retain(context->info));
    }
    timer->state = t;
    return timer;
}

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate, CFTimeInterval interval,
                                       CFOptionFlags flags, CFIndex order, CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext *context) noexcept {
    if (callout == nullptr) {
        logError("CFRunLoopTimerCreate", __LINE__, "callout is NULL");
        return nullptr;
    }
    return createTimer(allocator, fireDate, interval, flags, order, callout, nullptr, context);
}

CFRunLoopTimerRef CFRunLoopTimerCreateWithHandler(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                                  CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                                  void (^block)(CFRunLoopTimerRef timer)) noexcept {
    if (block == nullptr) {
        logError("CFRunLoopTimerCreateWithHandler", __LINE__, "block is NULL");
        return nullptr;
    }
    auto copy = reinterpret_cast<void (^)(CFRunLoopTimerRef)>(_Block_copy(reinterpret_cast<const void *>(block)));
    CFRunLoopTimerRef timer = createTimer(allocator, fireDate, interval, flags, order, nullptr, copy, nullptr);
    if (timer == nullptr) _Block_release(reinterpret_cast<const void *>(copy));
    return timer;
}

void CFRunLoopAddTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode) noexcept {
    if (!isRunLoop(rl) || !isTimer(timer) || mode == nullptr) {
        logError("CFRunLoopAddTimer", __LINE__, "run loop, timer or mode is NULL or of the wrong type");
        return;
    }
    Locked locked;
    TimerState *t = timer->state;
    if (!t->valid) return;
    if (t->runLoop != nullptr && t->runLoop != rl) {
        logError("CFRunLoopAddTimer", __LINE__, "timer is already in another run loop");
        return;
    }
    for (CFStringRef m : t->modes)
        if (CFEqual(m, mode)) return;
    if (t->runLoop == nullptr) {
        t->runLoop = rl;
        rl->state->timers.push_back(static_cast<__CFRunLoopTimer *>(const_cast<void *>(CFRetain(timer))));
    }
    t->modes.push_back(static_cast<CFStringRef>(CFRetain(mode)));
    pthread_cond_signal(&rl->state->wake);
}

void CFRunLoopRemoveTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode) noexcept {
    if (!isRunLoop(rl) || !isTimer(timer) || mode == nullptr) {
        logError("CFRunLoopRemoveTimer", __LINE__, "run loop, timer or mode is NULL or of the wrong type");
        return;
    }
    Detached detached;
    CFStringRef removedMode = nullptr;
    {
        Locked locked;
        TimerState *t = timer->state;
        if (t->runLoop != rl) return;
        for (auto it = t->modes.begin(); it != t->modes.end(); ++it)
            if (CFEqual(*it, mode)) {
                removedMode = *it;
                t->modes.erase(it);
                break;
            }
        if (t->modes.empty()) detached = detachLocked(timer);
    }
    if (removedMode != nullptr) CFRelease(removedMode);
    dropDetached(detached);
}

Boolean CFRunLoopContainsTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode) noexcept {
    if (!isRunLoop(rl) || !isTimer(timer) || mode == nullptr) return false;
    Locked locked;
    TimerState *t = timer->state;
    if (t->runLoop != rl) return false;
    for (CFStringRef m : t->modes)
        if (CFEqual(m, mode)) return true;
    return false;
}

CFAbsoluteTime CFRunLoopTimerGetNextFireDate(CFRunLoopTimerRef timer) noexcept {
    if (!isTimer(timer)) return 0.0;
    Locked locked;
    return timer->state->fireDate;
}

void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate) noexcept {
    if (!isTimer(timer)) {
        logError("CFRunLoopTimerSetNextFireDate", __LINE__, "timer is NULL or not a timer");
        return;
    }
    Locked locked;
    TimerState *t = timer->state;
    if (!t->valid) return;
    t->fireDate = fireDate;
    t->deadline = deadlineOf(fireDate);
    if (t->runLoop != nullptr) pthread_cond_signal(&t->runLoop->state->wake);
}

CFTimeInterval CFRunLoopTimerGetInterval(CFRunLoopTimerRef timer) noexcept {
    return isTimer(timer) ? timer->state->interval : 0.0;
}

Boolean CFRunLoopTimerDoesRepeat(CFRunLoopTimerRef timer) noexcept {
    return isTimer(timer) && timer->state->interval > 0;
}

void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer) noexcept {
    if (!isTimer(timer)) {
        logError("CFRunLoopTimerInvalidate", __LINE__, "timer is NULL or not a timer");
        return;
    }
    CFRetain(timer);
    invalidate(timer);
    CFRelease(timer);
}

Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer) noexcept {
    if (!isTimer(timer)) return false;
    Locked locked;
    return timer->state->valid;
}

void CFRunLoopTimerGetContext(CFRunLoopTimerRef timer, CFRunLoopTimerContext *context) noexcept {
    if (!isTimer(timer) || context == nullptr) return;
    Locked locked;
    *context = timer->state->context;
}

long _CFRunLoopTimerRearm(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate, const uint64_t *onlyIfFirings, int discard,
                          uint64_t *firingsOut) noexcept {
    if (!isTimer(timer)) return -1;
    Locked locked;
    TimerState *t = timer->state;
    long result = 0;
    if (t->valid && t->runLoop != nullptr && !t->owed) {
        uint64_t now = hostNow();
        if (t->deadline <= now) {
            advanceLocked(t, now);
            t->owed = true;
        }
    }
    if (onlyIfFirings == nullptr || *onlyIfFirings == t->firings) {
        if (t->valid) {
            t->fireDate = fireDate;
            t->deadline = deadlineOf(fireDate);
        }
        result = 1;
    }
    if (discard) {
        t->owed = false;
        pthread_t self = pthread_self();
        while (t->calloutsRunning > 0 && !pthread_equal(t->calloutThread, self))
            pthread_cond_wait(&gCalloutDone, &gLock);
    }
    if (t->runLoop != nullptr) pthread_cond_signal(&t->runLoop->state->wake);
    if (firingsOut != nullptr) *firingsOut = t->firings;
    return result;
}

}  // extern "C"
