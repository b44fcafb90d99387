// SPDX-License-Identifier: Apache-2.0
#include "PresentationTimer.h"

#include <utility>

namespace sorvel::tool {
namespace {

// A handler that runs this much before the deadline it finds belongs to an
// earlier arming.
constexpr uint64_t kStaleNanoseconds = 500000;

}  // namespace

std::unique_ptr<PresentationTimer> PresentationTimer::create(SVTimebaseRef timebase, std::string &error) {
    std::unique_ptr<PresentationTimer> timer(new PresentationTimer());
    timer->queue_ = dispatch_queue_create("sorvel.presentation", nullptr);
    if (timer->queue_) timer->source_ = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, timer->queue_);
    if (!timer->source_) {
        error = "cannot make a timer dispatch source";
        return nullptr;
    }
    dispatch_set_context(timer->source_, timer.get());
    dispatch_source_set_event_handler_f(timer->source_, fired);
    dispatch_resume(timer->source_);
    const OSStatus status = SVTimebaseAddTimerDispatchSource(timebase, timer->source_);
    if (status != 0) {
        error = "the timebase refused the presentation timer (status " + std::to_string(status) + ")";
        return nullptr;
    }
    timer->timebase_ = (SVTimebaseRef)CFRetain(timebase);
    return timer;
}

PresentationTimer::~PresentationTimer() {
    // After the cancel no handler starts, and the empty call on the serial
    // queue waits out one in progress: none runs against a timer that is
    // gone, or asks the timebase about a source it no longer holds.  The
    // timebase may still re-arm the cancelled source until it is removed;
    // a cancelled source ignores that.
    if (source_) dispatch_source_cancel(source_);
    if (queue_) dispatch_sync_f(queue_, nullptr, [](void *) {});
    if (timebase_) {
        // It was added in create(), so the timebase knows it.
        (void)SVTimebaseRemoveTimerDispatchSource(timebase_, source_);
        CFRelease(timebase_);
    }
    if (source_) dispatch_release(source_);
    if (queue_) dispatch_release(queue_);
}

void PresentationTimer::fired(void *context) {
    auto *self = static_cast<PresentationTimer *>(context);
    const uint64_t now = SVClockConvertHostTimeToSystemUnits(SVClockGetTime(SVClockGetHostTimeClock()));
    SVTime deadline = kSVTimeInvalid;
    // Without a deadline (none armed) the firing is taken as on time.
    const OSStatus status = SVTimebaseGetTimerDispatchSourceDeadline(self->timebase_, self->source_, &deadline);
    const uint64_t deadlineHost =
        status == 0 && SVTIME_IS_NUMERIC(deadline)
            ? static_cast<uint64_t>(SVTimeConvertScale(deadline, 1000000000, kSVTimeRoundingMethod_Default).value)
            : now;
    // A firing of an earlier arming, delivered after the player armed the
    // timer anew, runs before the new deadline: it is not this arming's.
    if (now + kStaleNanoseconds < deadlineHost) return;
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->fired_ = true;
        self->firing_.handlerHost = now;
        self->firing_.deadlineHost = deadlineHost;
    }
    self->changed_.notify_all();
}

OSStatus PresentationTimer::arm(SVTime fireTime) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        fired_ = false;
    }
    const OSStatus status = SVTimebaseSetTimerDispatchSourceNextFireTime(timebase_, source_, fireTime, 0);
    // A firing of the previous arming delivered meanwhile is not this one's.
    return status;
}

PresentationTimer::Outcome PresentationTimer::wait(std::chrono::nanoseconds timeout, Firing &firing) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return fired_ || woken_; })) return Outcome::TimedOut;
    if (fired_) {
        fired_ = false;
        firing = firing_;
        return Outcome::Fired;
    }
    woken_ = false;
    return Outcome::Woken;
}

void PresentationTimer::wake() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        woken_ = true;
    }
    changed_.notify_all();
}

}  // namespace sorvel::tool
