/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Clocks: sources of the current time.
 *
 * A clock is a runtime object that owns a time source; asking it for its
 * time runs the source.  Two kinds exist:
 *
 * - The host time clock (SVClockGetHostTimeClock), one per process, reads
 *   the system's monotonic counter (CLOCK_MONOTONIC), which counts
 *   nanoseconds: its times are SVTimeMake(counter, 1000000000).  Host times
 *   always carry timescale 1000000000.
 * - Audio clocks (SVAudioClockCreate) follow the sample counter of the
 *   default audio output device (see <CoreAudio/AudioHardware.h>): their
 *   times are samples at the device's sample rate.
 *
 * Timebases (<Sorvel/SVTimebase.h>) take a clock as their master, and the
 * synchronisation queries (<Sorvel/SVSync.h>) convert between clocks.
 *
 * Invalid times.  A NULL clock, an object that is not a clock, an
 * invalidated clock, and an audio clock whose device cannot be read all
 * report kSVTimeInvalid; no error is logged for them.
 *
 * Threads.  Clocks hold no lock.  Every call may be made from any thread,
 * and a clock's time may be read from many threads at once.
 */
#ifndef SORVEL_SVCLOCK_H
#define SORVEL_SVCLOCK_H

#include <Sorvel/SVTime.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVClock *SVClockRef;

/* Statuses of the clock calls. */
enum {
    kSVClockError_MissingRequiredParameter = -12745,
    /* The clock could not be made: the audio device could not be queried,
     * or the object could not be allocated. */
    kSVClockError_AllocationFailed = -12747
};

/* The clock class's type identifier (registered on first use). */
SV_EXPORT CFTypeID SVClockGetTypeID(void) SV_NOEXCEPT;

/* The host time clock: the same object on every call and from every thread,
 * made on first use.  Borrowed: never release it.  Releasing its last
 * reference ("can't release the host clock") or invalidating it ends the
 * process. */
SV_EXPORT SVClockRef SVClockGetHostTimeClock(void) SV_NOEXCEPT;

/* Makes a clock on the default audio output device.  The device and its
 * sample rate are read once, now: the clock keeps following that device
 * (even if another becomes the default) and keeps that rate, truncated to
 * whole hertz, as its timescale.  Its time is the device's sample time,
 * truncated to a whole sample; kSVTimeInvalid whenever the device cannot be
 * read (it has not started, or is gone).
 * Returns kSVClockError_MissingRequiredParameter for a NULL clockOut (nothing
 * else is done), kSVClockError_AllocationFailed with NULL in *clockOut when
 * the device cannot be queried or the clock cannot be allocated.  The caller
 * owns the new clock (CFRelease). */
SV_EXPORT OSStatus SVAudioClockCreate(CFAllocatorRef allocator, SVClockRef *clockOut) SV_NOEXCEPT;

/* A clock's time source as a function, given the refcon it was made with.
 * It may run on several threads at once. */
typedef SVTime (*SVClockTimeSourceFunction)(void *refcon);

/* The function-pointer form of _SVClockCreateWithBlock (below), for every
 * compiler: the clock's time is `getTime(refcon)`; a NULL `getTime` makes a
 * clock that always reads kSVTimeInvalid.  `refcon` is not retained: it must
 * stay valid until the clock is released.  Returns
 * kSVClockError_MissingRequiredParameter for a NULL clockOut (nothing else
 * is done), kSVClockError_AllocationFailed with NULL in *clockOut when the
 * clock cannot be allocated.  The caller owns the new clock (CFRelease). */
SV_EXPORT OSStatus _SVClockCreateWithFunction(CFAllocatorRef allocator, SVClockTimeSourceFunction getTime, void *refcon,
                                              SVClockRef *clockOut) SV_NOEXCEPT;

#if __BLOCKS__
/* A clock's time source.  It may run on several threads at once. */
typedef SVTime (^SVClockTimeSourceBlock)(void);

/* Makes a clock whose time is whatever `timeSource` returns (the block is
 * copied and released with the clock).  A NULL block makes a clock that
 * always reads kSVTimeInvalid.  Returns NULL when allocation fails.  The
 * caller owns the new clock (CFRelease).  Useful to drive timebases from a
 * time the caller controls (a test, a media pipeline's own clock). */
SV_EXPORT SVClockRef _SVClockCreateWithBlock(CFAllocatorRef allocator,
                                             SVClockTimeSourceBlock timeSource) SV_NOEXCEPT CF_RETURNS_RETAINED;
#endif

/* The clock's time now; kSVTimeInvalid for NULL, an object that is not a
 * clock, an invalidated clock or a clock without a time source. */
SV_EXPORT SVTime SVClockGetTime(SVClockRef clock) SV_NOEXCEPT;

/* Reads the clock's time once (as SVClockGetTime) and stores it in both
 * outputs: a clock is its own reference.  Returns 0 in every case; a NULL
 * output is skipped. */
SV_EXPORT OSStatus SVClockGetAnchorTime(SVClockRef clock, SVTime *clockTimeOut,
                                        SVTime *referenceClockTimeOut) SV_NOEXCEPT;

/* False for every pair: clocks are taken to run together. */
SV_EXPORT Boolean SVClockMightDrift(SVClockRef clock, SVClockRef otherClock) SV_NOEXCEPT;

/* Makes the clock read kSVTimeInvalid from now on (one-way; again is
 * harmless).  Its time source is released only with the clock.  Invalidating
 * the host time clock ends the process ("can't invalidate the host clock").
 * NULL and objects that are not clocks are ignored.  The flag is written
 * without a lock: readers on other threads see it soon, not at once. */
SV_EXPORT void SVClockInvalidate(SVClockRef clock) SV_NOEXCEPT;

/* The host time's value as it stands, with no change of timescale and no
 * test of flags: it is meant for host times, whose timescale is 1000000000;
 * a time of another timescale is deliberately not rescaled. */
SV_EXPORT uint64_t SVClockConvertHostTimeToSystemUnits(SVTime hostTime) SV_NOEXCEPT;

/* SVTimeMake(hostTime, 1000000000). */
SV_EXPORT SVTime SVClockMakeHostTimeFromSystemUnits(uint64_t hostTime) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVCLOCK_H */
