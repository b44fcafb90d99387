/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A timebase running at rate 2 on the host clock, and conversions between
 * its timeline and the clock's.
 *
 * A player keeps a timebase per presentation: its time is the media time
 * that should be on screen now.  Setting its rate to 2 plays twice as fast;
 * SVSyncConvertTime tells when (on the host clock) a media time will be
 * reached, which is when to show that frame.
 */
#include <Sorvel/SVClock.h>
#include <Sorvel/SVSync.h>
#include <Sorvel/SVTime.h>
#include <Sorvel/SVTimebase.h>
#include <stdio.h>

int main(void) {
    SVClockRef host = SVClockGetHostTimeClock(); /* borrowed: never released */
    SVTimebaseRef timebase = NULL;
    OSStatus status = SVTimebaseCreateWithMasterClock(NULL, host, &timebase);
    if (status != 0) {
        fprintf(stderr, "SVTimebaseCreateWithMasterClock failed: %d\n", (int)status);
        return 1;
    }

    /* Start the media timeline at 10 s, running twice as fast as the host
     * clock.  Rate and anchor are set in one call so no time passes between
     * them. */
    const SVTime hostNow = SVClockGetTime(host);
    status = SVTimebaseSetRateAndAnchorTime(timebase, 2.0, SVTimeMake(10, 1), hostNow);
    if (status != 0) {
        fprintf(stderr, "SVTimebaseSetRateAndAnchorTime failed: %d\n", (int)status);
        CFRelease(timebase);
        return 1;
    }

    /* Media time 16 s is 6 media seconds away: at rate 2 that is 3 host seconds. */
    const SVTime when = SVSyncConvertTime(SVTimeMake(16, 1), timebase, host);
    const SVTime wait = SVTimeSubtract(when, hostNow);
    printf("rate %.1f: media 16 s is reached %.3f s of host time after the anchor\n", SVTimebaseGetRate(timebase),
           SVTimeGetSeconds(wait));

    /* And back: the host time of the anchor is media time 10 s. */
    const SVTime back = SVSyncConvertTime(hostNow, host, timebase);
    printf("the anchor's host time is media %.3f s\n", SVTimeGetSeconds(back));

    /* Pausing: rate 0 freezes the media time. */
    SVTimebaseSetRate(timebase, 0.0);
    const SVTime frozen = SVTimebaseGetTime(timebase);
    printf("paused at media %.3f s\n", SVTimeGetSeconds(frozen));

    const int ok = SVTimeGetSeconds(wait) > 2.999 && SVTimeGetSeconds(wait) < 3.001 && SVTimeGetSeconds(back) > 9.999 &&
                   SVTimeGetSeconds(back) < 10.001;
    CFRelease(timebase);
    return ok ? 0 : 1;
}
