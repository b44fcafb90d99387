/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A buffer queue of sample buffers with a trigger.
 *
 * A decoder's input queue: the producer enqueues compressed samples, and a
 * trigger says when at least half a second is buffered, which is when a
 * player may start.  Trigger callbacks run synchronously on the thread whose
 * call made the condition true (here, SVBufferQueueEnqueue).
 */
#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVSampleBuffer.h>
#include <Sorvel/SVTime.h>
#include <stdio.h>

/* The condition is checked after every change to the queue, and the
 * callback runs each time it holds: here, after every enqueue from the
 * fifth on and every dequeue down to the fifth.  We report the first. */
static int firings = 0;

static void enoughBuffered(void *refcon, SVBufferQueueTriggerToken token) {
    (void)token;
    SVBufferQueueRef queue = (SVBufferQueueRef)refcon;
    if (firings++ > 0) return;
    printf("trigger: %.3f s buffered in %ld samples\n", SVTimeGetSeconds(SVBufferQueueGetDuration(queue)),
           (long)SVBufferQueueGetBufferCount(queue));
}

int main(void) {
    SVBufferQueueRef queue = NULL;
    /* Capacity 0 means unbounded; these callbacks keep samples in arrival order. */
    OSStatus status = SVBufferQueueCreate(NULL, 0, SVBufferQueueGetCallbacksForUnsortedSampleBuffers(), &queue);
    if (status != 0) {
        fprintf(stderr, "SVBufferQueueCreate failed: %d\n", (int)status);
        return 1;
    }
    SVBufferQueueTriggerToken token = NULL;
    status = SVBufferQueueInstallTrigger(queue, enoughBuffered, (void *)queue,
                                         kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo,
                                         SVTimeMake(1, 2), &token);
    if (status != 0) {
        fprintf(stderr, "SVBufferQueueInstallTrigger failed: %d\n", (int)status);
        CFRelease(queue);
        return 1;
    }

    /* Ten dataless samples of 1/10 s each (timing only, as a queue sees them). */
    for (int i = 0; i < 10; ++i) {
        const SVSampleTimingInfo timing = {SVTimeMake(1, 10), SVTimeMake(i, 10), kSVTimeInvalid};
        SVSampleBufferRef sample = NULL;
        status = SVSampleBufferCreate(NULL, NULL, true, NULL, NULL, NULL, 1, 1, &timing, 0, NULL, &sample);
        if (status == 0) status = SVBufferQueueEnqueue(queue, sample); /* the queue retains it */
        if (sample) CFRelease(sample);
        if (status != 0) {
            fprintf(stderr, "enqueue %d failed: %d\n", i, (int)status);
            CFRelease(queue);
            return 1;
        }
    }

    /* The consumer takes them in order; each dequeued reference is ours. */
    int taken = 0;
    for (SVSampleBufferRef sample; (sample = (SVSampleBufferRef)SVBufferQueueDequeueAndRetain(queue)) != NULL;) {
        ++taken;
        CFRelease(sample);
    }
    printf("dequeued %d samples; the trigger ran %d times\n", taken, firings);
    SVBufferQueueRemoveTrigger(queue, token);
    CFRelease(queue);
    return taken == 10 && firings == 11 ? 0 : 1;
}
