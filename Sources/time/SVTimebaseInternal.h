/* SPDX-License-Identifier: Apache-2.0 */
// The timebase object, shared with the synchronisation module, which reads
// rates, masters and anchors directly.
//
// A timebase's rate and anchor pair form one state that setters replace as
// a whole.  Readers take no lock: the state sits behind a sequence lock (a
// writer makes the sequence odd, stores the words, makes it even again; a
// reader retries while it is odd or changed), so every reader sees the
// state of one call, never half of one.  The words are read and written
// with atomic builtins, so a reader racing a writer reads stale or fresh
// words but never tears one.  Writers hold the timebase's state mutex, so
// there is only ever one.
#ifndef SORVEL_SOURCES_SVTIMEBASEINTERNAL_H
#define SORVEL_SOURCES_SVTIMEBASEINTERNAL_H

#include <Sorvel/SVTimebase.h>
#include <XPLog/XPLog.h>
#include <sched.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/SVObject.h"

namespace sorvel::sync {
// What a source is, by its runtime type: every synchronisation rule
// branches on it.
enum class Kind : uint8_t { Other, Clock, Timebase };
}  // namespace sorvel::sync

namespace sorvel::timebase {

struct TimerRegistry;

struct State {
    double rate;
    SVTime masterAnchor;    // on the master's timeline
    SVTime timebaseAnchor;  // the timebase's time at masterAnchor
};
inline constexpr size_t kStateWords = sizeof(State) / sizeof(uint64_t);
static_assert(sizeof(State) == kStateWords * sizeof(uint64_t), "the state is whole words");
static_assert(offsetof(State, rate) == 0, "the rate is the first word, readable alone");

}  // namespace sorvel::timebase

struct OpaqueSVTimebase {
    CFRuntimeBase base;
    CFTypeRef master;  // retained; fixed for life
    sorvel::sync::Kind masterKind;
    bool observesMaster;  // registered with the local center
    uint32_t sequence;    // odd while the state is being written
    uint64_t state[sorvel::timebase::kStateWords];
    XPMutexRef timerMutex;                    // guards the timer registry
    XPMutexRef stateMutex;                    // serialises writers of the state
    sorvel::timebase::TimerRegistry *timers;  // NULL until a timer is added
    // Non-zero while SVTimebaseSetRateAndAnchorTime has set the rate but not
    // yet the anchors: children do not re-arm on that provisional state.
    int settingRateOnly;
};

namespace sorvel::timebase {

extern SVRuntimeClass<OpaqueSVTimebase> gTimebaseClass;

inline State readState(const OpaqueSVTimebase *timebase) noexcept {
    uint64_t words[kStateWords];
    for (;;) {
        uint32_t before = __atomic_load_n(&timebase->sequence, __ATOMIC_ACQUIRE);
        if (__builtin_expect(before & 1, 0)) {
            sched_yield();
            continue;
        }
        for (size_t i = 0; i < kStateWords; i++) words[i] = __atomic_load_n(&timebase->state[i], __ATOMIC_RELAXED);
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        if (__atomic_load_n(&timebase->sequence, __ATOMIC_RELAXED) == before) break;
    }
    State state;
    std::memcpy(&state, words, sizeof state);
    return state;
}

// The rate alone is one word, always whole.
inline double readRate(const OpaqueSVTimebase *timebase) noexcept {
    uint64_t word = __atomic_load_n(&timebase->state[0], __ATOMIC_RELAXED);
    double rate;
    std::memcpy(&rate, &word, sizeof rate);
    return rate;
}

// The time of `timebase` when its master reads `masterTime`, in the given
// state: timebase anchor + (masterTime - master anchor) x rate.
SVTime timeAt(const State &state, SVTime masterTime) noexcept;
// The same through the public arithmetic calls, step by step; timeAt gives
// identical results (kept for the tests that check so).
SVTime timeAtComposed(const State &state, SVTime masterTime) noexcept;

// SVTimebaseGetTime for an object known to be a timebase.
SVTime currentTime(const OpaqueSVTimebase *timebase) noexcept;

// Timers (SVTimebaseTimer.cpp).  Re-arms every timer of `timebase` from
// its current rate and anchors; a no-op without timers.
void rescheduleTimers(OpaqueSVTimebase *timebase) noexcept;
// A master up the chain has posted: re-arms unless an ancestor is between
// the two halves of SVTimebaseSetRateAndAnchorTime.
void masterChanged(OpaqueSVTimebase *timebase) noexcept;
// Disarms and releases every timer (finalize).
void destroyTimers(OpaqueSVTimebase *timebase) noexcept;

}  // namespace sorvel::timebase

#endif  // SORVEL_SOURCES_SVTIMEBASEINTERNAL_H
