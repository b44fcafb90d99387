/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Plays a sequence of timed events on a timebase, the way a player
 * schedules samples: one timer dispatch source, re-armed from its own
 * handler for the next event's time on the timeline.  The timeline runs at
 * rate 1, then 2, then -1 (backwards through the same events); the program
 * never sleeps to wait for an event.  Each line shows the event's time on
 * the timeline, the timeline's time when the handler ran, and how late the
 * handler ran against the deadline the timebase asked for.
 */
#include <Sorvel/Sorvel.h>
#include <dispatch/dispatch.h>
#include <stdio.h>
#include <string.h>

enum { kEvents = 8, kSpacingMs = 40 };

typedef struct {
    SVTimebaseRef timebase;
    dispatch_source_t timer;
    dispatch_semaphore_t phaseDone;
    int next;      /* index of the next event */
    int step;      /* +1 forwards, -1 backwards */
    int remaining; /* events left in this phase */
} Player;

static SVTime eventTime(int index) {
    return SVTimeMake((int64_t)index * kSpacingMs, 1000);
}

static void playEvent(void *context) {
    Player *player = (Player *)context;
    SVTime deadline;
    SVTimebaseGetTimerDispatchSourceDeadline(player->timebase, player->timer, &deadline);
    SVTime host = SVClockGetTime(SVClockGetHostTimeClock());
    SVTime now = SVTimebaseGetTimeWithTimeScale(player->timebase, 1000, kSVTimeRoundingMethod_Default);
    printf("  event %d at %4lld ms: timeline reads %4lld ms, woke %5.1f us after the deadline\n", player->next,
           (long long)eventTime(player->next).value, (long long)now.value, (host.value - deadline.value) / 1000.0);
    player->next += player->step;
    if (--player->remaining == 0) {
        dispatch_semaphore_signal(player->phaseDone);
        return;
    }
    SVTimebaseSetTimerDispatchSourceNextFireTime(player->timebase, player->timer, eventTime(player->next), 0);
}

static void playPhase(Player *player, double rate, int first, int step, int count) {
    printf("rate %g:\n", rate);
    player->next = first;
    player->step = step;
    player->remaining = count;
    /* Stop, place the timeline just before the first event, arm, then run. */
    SVTimebaseSetRate(player->timebase, 0.0);
    SVTimebaseSetTime(player->timebase, SVTimeSubtract(eventTime(first), SVTimeMake(step * 10, 1000)));
    SVTimebaseSetTimerDispatchSourceNextFireTime(player->timebase, player->timer, eventTime(first), 0);
    SVTimebaseSetRate(player->timebase, rate);
    dispatch_semaphore_wait(player->phaseDone, DISPATCH_TIME_FOREVER);
}

int main(void) {
    Player player;
    memset(&player, 0, sizeof player);
    if (SVTimebaseCreateWithMasterClock(kCFAllocatorDefault, SVClockGetHostTimeClock(), &player.timebase) != 0)
        return 1;
    dispatch_queue_t queue = dispatch_queue_create("player", DISPATCH_QUEUE_SERIAL);
    player.timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
    player.phaseDone = dispatch_semaphore_create(0);
    dispatch_set_context(player.timer, &player);
    dispatch_source_set_event_handler_f(player.timer, playEvent);
    dispatch_resume(player.timer);
    if (SVTimebaseAddTimerDispatchSource(player.timebase, player.timer) != 0) return 1;

    playPhase(&player, 1.0, 0, +1, kEvents);
    playPhase(&player, 2.0, 0, +1, kEvents);
    playPhase(&player, -1.0, kEvents - 1, -1, kEvents);

    /* After removal the handler never runs again; then the source can go. */
    SVTimebaseRemoveTimerDispatchSource(player.timebase, player.timer);
    dispatch_source_cancel(player.timer);
    dispatch_release(player.timer);
    dispatch_release(player.phaseDone);
    dispatch_release(queue);
    CFRelease(player.timebase);
    return 0;
}
