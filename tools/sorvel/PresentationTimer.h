/* SPDX-License-Identifier: Apache-2.0 */
// Waits for the moments at which pictures are due with a timer dispatch
// source on the player's timebase: the timebase turns each presentation
// time into a host-clock deadline through its rate, anchors and master clock
// (the audio clock when the sound plays) and re-arms the timer when they
// change.  The player thread arms the timer for the picture due next and
// waits; the handler, on the source's own queue, records when it ran and the
// deadline the timebase asked for (their difference is the wake-up error)
// and wakes the player.  wake() interrupts a wait, for a picture that
// arrives earlier than the one armed for.
#ifndef SORVEL_TOOLS_SORVEL_PRESENTATIONTIMER_H
#define SORVEL_TOOLS_SORVEL_PRESENTATIONTIMER_H

#include <Sorvel/Sorvel.h>
#include <dispatch/dispatch.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace sorvel::tool {

class PresentationTimer {
public:
    // Makes the source on a serial queue of its own and adds it to
    // `timebase`; null with `error` set when the timebase refuses it.
    static std::unique_ptr<PresentationTimer> create(SVTimebaseRef timebase, std::string &error);
    ~PresentationTimer();
    PresentationTimer(const PresentationTimer &) = delete;
    PresentationTimer &operator=(const PresentationTimer &) = delete;

    // Arms the timer for `fireTime` on the timebase's timeline, replacing
    // any earlier arming and forgetting a firing not yet waited for (a
    // firing of the earlier arming that arrives late, before the new
    // deadline, is ignored).
    OSStatus arm(SVTime fireTime);

    enum class Outcome { Fired, Woken, TimedOut };
    struct Firing {
        uint64_t handlerHost = 0;   // when the handler ran
        uint64_t deadlineHost = 0;  // the deadline the timebase had asked for
    };
    // Waits for the timer to fire, for wake(), or for `timeout`.
    Outcome wait(std::chrono::nanoseconds timeout, Firing &firing);
    // Makes a waiting (or the next) wait() return Woken.
    void wake();

private:
    PresentationTimer() = default;
    static void fired(void *context);

    SVTimebaseRef timebase_ = nullptr;
    dispatch_queue_t queue_ = nullptr;
    dispatch_source_t source_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool fired_ = false;
    bool woken_ = false;
    Firing firing_;
};

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_PRESENTATIONTIMER_H
