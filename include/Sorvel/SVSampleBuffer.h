/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVSampleBuffer: media samples together with their format, timing, sizes,
 * readiness and attachments.
 *
 * A sample buffer is one of two kinds, fixed at creation:
 * - a data-buffer sample buffer: any number of samples whose bytes lie one
 *   after the other in an SVBlockBuffer (which may be attached later, see
 *   SVSampleBufferSetDataBuffer), with a timing array and a size array.
 *   Each array holds 0 entries (unknown), 1 entry (that entry stands for
 *   every sample) or one entry per sample;
 * - an image-buffer sample buffer: exactly one decoded frame in a CoreVideo
 *   image buffer, with one timing record.
 * Either kind carries an SVFormatDescription (optional for the data kind).
 *
 * Readiness.  A buffer's data may not be there yet when the buffer is made
 * (a capture or a network read still filling it).  Each buffer has a ready
 * flag, an optional make-data-ready callback that can fill the data on
 * demand, and a failure status.  A buffer may track another buffer's
 * readiness (every copy tracks its source); readiness questions then go to
 * the last buffer of that chain, the one that tracks nothing (a chain that
 * loops back on itself is not refused, but asking it never ends).
 * Readiness only ever goes from not ready to ready.
 *
 * Invalidation.  SVSampleBufferInvalidate marks a buffer unusable (one way,
 * at most once) after calling its invalidate handler.  An invalidated buffer
 * answers every getter as NULL would and refuses the checked operations with
 * kSVSampleBufferError_Invalidated; its data is kept until it is finalized.
 *
 * Output timing.  The "output" getters apply the buffer attachments
 * kSVSampleBufferAttachmentKey_TrimDurationAtStart, ...TrimDurationAtEnd,
 * ...SpeedMultiplier and ...Reverse (see <Sorvel/SVAttachment.h>) to the
 * stored timing: the times at which the samples are to be presented.
 *
 * Ownership.  Create and Copy calls give the caller one reference; release
 * it with CFRelease.  The buffer retains its block or image buffer, its
 * format description and any buffer it tracks, and keeps its own copies of
 * the caller's timing and size arrays.  Get calls return borrowed
 * references, valid while the sample buffer lives.  Attachments are set on
 * a sample buffer with the calls of <Sorvel/SVAttachment.h> (or CoreVideo's
 * CVBuffer calls, which accept a sample buffer directly).
 *
 * Threads.  A sample buffer takes no lock.  Reading one buffer from several
 * threads is safe; changing it (readiness, data buffer, invalidation,
 * handlers, output time) while another thread uses it is not.  Buffer
 * attachments guard themselves, but the output getters read the trim and
 * speed values they borrow, so set those before other threads read output
 * timing.  Callbacks and handlers run on the thread that caused them, with
 * no lock held.
 *
 * Errors are the kSVSampleBufferError_ codes below.  Ordinary failures are
 * not logged; a broken internal invariant ends the process ("BUG").
 *
 * Arguments.  Every call that takes a sample buffer treats an object that
 * is not a sample buffer exactly like NULL: the answer each call gives below
 * for a NULL buffer (a buffer to track that is not one is refused with
 * kSVSampleBufferError_RequiredParameterMissing, as NULL is).  A data buffer
 * or format description given to a creation call or to
 * SVSampleBufferSetDataBuffer that is not a block buffer or a format
 * description is refused with kSVSampleBufferError_RequiredParameterMissing
 * (*sampleBufferOut left as it was by the data-buffer creators, set to NULL
 * by the image-buffer creators, which require a description).
 */
#ifndef SORVEL_SVSAMPLEBUFFER_H
#define SORVEL_SVSAMPLEBUFFER_H

#include <Sorvel/SVBase.h>
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVTime.h>

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreVideo/CoreVideo.h>

#include <stddef.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVSampleBuffer *SVSampleBufferRef;

/* Status codes. */
enum {
    /* An object or array could not be allocated. */
    kSVSampleBufferError_AllocationFailed = -12730,
    /* A required pointer argument is NULL. */
    kSVSampleBufferError_RequiredParameterMissing = -12731,
    /* The buffer already has a data buffer. */
    kSVSampleBufferError_AlreadyHasDataBuffer = -12732,
    /* The data is not ready and nothing can make it ready. */
    kSVSampleBufferError_BufferNotReady = -12733,
    /* A sample index or range lies beyond the samples (for the audio calls
     * also: frames outside the buffer). */
    kSVSampleBufferError_SampleIndexOutOfRange = -12734,
    /* The buffer holds no sample sizes. */
    kSVSampleBufferError_BufferHasNoSampleSizes = -12735,
    /* The buffer holds no usable timing entries. */
    kSVSampleBufferError_BufferHasNoSampleTimingInfo = -12736,
    /* The caller's array is smaller than the count needed. */
    kSVSampleBufferError_ArrayTooSmall = -12737,
    /* A timing or size entry count is neither 0, 1 nor the number of
     * samples. */
    kSVSampleBufferError_InvalidEntryCount = -12738,
    /* The buffer has no samples to divide. */
    kSVSampleBufferError_CannotSubdivide = -12739,
    /* Audio data that contradicts itself or its format: packet
     * descriptions that overlap, run past the data or disagree with its
     * length, a sample rate or frames-per-packet value that cannot time the
     * packets, packet descriptions where the format allows none (logged). */
    kSVSampleBufferError_InvalidAudioData = -12740,
    /* The operation needs a data-buffer sample buffer (for the audio calls:
     * one with an audio format description, for the PCM calls a linear PCM
     * one). */
    kSVSampleBufferError_InvalidMediaTypeForOperation = -12741,
    /* An audio buffer list whose number of buffers, channels per buffer or
     * byte sizes do not fit the format and the sample count. */
    kSVSampleBufferError_AudioBufferListMismatch = -12742,
    /* The format description's subtype cannot be written as bytes. */
    kSVSampleBufferError_InvalidMediaFormat = -12743,
    /* The buffer has been invalidated. */
    kSVSampleBufferError_Invalidated = -12744
};

/* The timing of one sample, or of every sample when a buffer has a single
 * entry.  Fields in this order, 72 bytes. */
typedef struct SVSampleTimingInfo {
    SVTime duration;
    SVTime presentationTimeStamp;
    SVTime decodeTimeStamp; /* kSVTimeInvalid when decode order is presentation order */
} SVSampleTimingInfo;

/* Makes the data of `sbuf` ready (fills it, waits for it...); returns 0 on
 * success or a status of the caller's choosing, which the asking call
 * returns unchanged. */
typedef OSStatus (*SVSampleBufferMakeDataReadyCallback)(SVSampleBufferRef sbuf, void *makeDataReadyRefcon);

/* Called once, when the buffer is invalidated. */
typedef void (*SVSampleBufferInvalidateCallback)(SVSampleBufferRef sbuf, uint64_t invalidateRefCon);

/* Called for one sample of an iteration with a new one-sample buffer
 * (borrowed: it is released after the call) and the sample's index; a
 * non-zero result stops the iteration and is returned from it. */
typedef OSStatus (*SVSampleBufferForEachSampleCallback)(SVSampleBufferRef sampleBuffer, SVItemCount index,
                                                        void *refcon);

#if __BLOCKS__
typedef void (^SVSampleBufferInvalidateHandler)(SVSampleBufferRef sbuf);
typedef OSStatus (^SVSampleBufferForEachSampleHandler)(SVSampleBufferRef sampleBuffer, SVItemCount index);
/* Returns a writable buffer of at least `size` bytes, or NULL. */
typedef void * (^SVSampleBufferPacketAllocator)(size_t size);
#endif

/* ==== The object =========================================================== */

/* The sample buffer class's type identifier (the class is registered on
 * first use). */
SV_EXPORT CFTypeID SVSampleBufferGetTypeID(void) SV_NOEXCEPT;

/* ==== Creation ============================================================== */

/* Creates a data-buffer sample buffer of `numSamples` samples.
 * `dataBuffer` (may be NULL: attach it later with SVSampleBufferSetDataBuffer)
 * and `formatDescription` (may be NULL) are retained.  `dataReady` tells
 * whether the data is already complete; otherwise `makeDataReadyCallback`
 * (may be NULL) is called with `makeDataReadyRefcon` by
 * SVSampleBufferMakeDataReady.
 * Each entry count must be 0, 1 or `numSamples`; the arrays are copied.  A
 * count with a NULL array is stored as given and then reads as "no array".
 * Nothing else is checked: the sizes need not add up to the data length.
 * Returns 0 with the new buffer in *sampleBufferOut;
 * kSVSampleBufferError_RequiredParameterMissing for a NULL `sampleBufferOut`,
 * kSVSampleBufferError_InvalidEntryCount for a count of 2 or more that is not
 * `numSamples` (*sampleBufferOut untouched in both cases),
 * kSVSampleBufferError_AllocationFailed (*sampleBufferOut set to NULL when
 * the object itself cannot be made). */
SV_EXPORT OSStatus SVSampleBufferCreate(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
                                        SVSampleBufferMakeDataReadyCallback makeDataReadyCallback,
                                        void *makeDataReadyRefcon, SVFormatDescriptionRef formatDescription,
                                        SVItemCount numSamples, SVItemCount numSampleTimingEntries,
                                        const SVSampleTimingInfo *sampleTimingArray, SVItemCount numSampleSizeEntries,
                                        const size_t *sampleSizeArray, SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* SVSampleBufferCreate with the data ready and no make-data-ready
 * callback. */
SV_EXPORT OSStatus SVSampleBufferCreateReady(CFAllocatorRef allocator, SVBlockBufferRef dataBuffer,
                                             SVFormatDescriptionRef formatDescription, SVItemCount numSamples,
                                             SVItemCount numSampleTimingEntries,
                                             const SVSampleTimingInfo *sampleTimingArray,
                                             SVItemCount numSampleSizeEntries, const size_t *sampleSizeArray,
                                             SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* Creates an image-buffer sample buffer: one sample, `imageBuffer` and
 * `formatDescription` retained, `*sampleTiming` copied.  The description is
 * not compared with the image.  Returns
 * kSVSampleBufferError_RequiredParameterMissing for a NULL `sampleBufferOut`
 * (nothing written) or a NULL image buffer, description or timing
 * (*sampleBufferOut set to NULL); kSVSampleBufferError_AllocationFailed
 * (*sampleBufferOut set to NULL). */
SV_EXPORT OSStatus SVSampleBufferCreateForImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
                                                      Boolean dataReady,
                                                      SVSampleBufferMakeDataReadyCallback makeDataReadyCallback,
                                                      void *makeDataReadyRefcon,
                                                      SVVideoFormatDescriptionRef formatDescription,
                                                      const SVSampleTimingInfo *sampleTiming,
                                                      SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* SVSampleBufferCreateForImageBuffer with the data ready and no
 * make-data-ready callback. */
SV_EXPORT OSStatus SVSampleBufferCreateReadyWithImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
                                                            SVVideoFormatDescriptionRef formatDescription,
                                                            const SVSampleTimingInfo *sampleTiming,
                                                            SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* ==== Plain getters =========================================================
 * Each answers NULL, 0 or false for a NULL or invalidated buffer. */

/* True while the buffer is not invalidated (false for NULL). */
SV_EXPORT Boolean SVSampleBufferIsValid(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* Borrowed; may be NULL for a data-buffer sample buffer. */
SV_EXPORT SVFormatDescriptionRef SVSampleBufferGetFormatDescription(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* Borrowed; NULL for an image-buffer sample buffer or before a data buffer
 * is attached. */
SV_EXPORT SVBlockBufferRef SVSampleBufferGetDataBuffer(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* Borrowed; NULL for a data-buffer sample buffer. */
SV_EXPORT CVImageBufferRef SVSampleBufferGetImageBuffer(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* 1 for an image-buffer sample buffer. */
SV_EXPORT SVItemCount SVSampleBufferGetNumSamples(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* ==== Buffer-wide timing =====================================================
 * NULL or invalidated buffers give kSVTimeInvalid.  An image-buffer sample
 * buffer answers from its one record.  A data-buffer sample buffer: */

/* the least presentation time of its entries; kSVTimeInvalid without a
 * timing array or when the entry count is neither 1 nor the sample count. */
SV_EXPORT SVTime SVSampleBufferGetPresentationTimeStamp(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* the FIRST entry's decode time (not the least); kSVTimeInvalid without
 * entries. */
SV_EXPORT SVTime SVSampleBufferGetDecodeTimeStamp(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* kSVTimeZero without timing entries; one entry's duration times the sample
 * count; the sum of one entry per sample; kSVTimeInvalid otherwise. */
SV_EXPORT SVTime SVSampleBufferGetDuration(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* ==== Output timing ==========================================================
 * The stored timing with the trim, speed and reverse attachments applied:
 *   output presentation = presentation + trim at start, or, when Reverse is
 *                         kCFBooleanTrue, presentation + duration - trim at end;
 *   output duration     = (duration - trim at start - trim at end) / speed;
 *   output decode       = output presentation + (decode - presentation) / speed.
 * Trims that are missing or not valid count as zero, a missing speed as 1.0.
 * NULL and invalidated buffers, and a speed of exactly 0.0 for the duration
 * and decode time, give an all-zero SVTime (invalid). */

/* The override set with SVSampleBufferSetOutputPresentationTimeStamp when
 * it is valid, else computed as above. */
SV_EXPORT SVTime SVSampleBufferGetOutputPresentationTimeStamp(SVSampleBufferRef sbuf) SV_NOEXCEPT;
/* Stores a time that replaces the computed output presentation time (an
 * invalid time removes the override).  Not checked, also allowed on an
 * invalidated buffer.  kSVSampleBufferError_RequiredParameterMissing for
 * NULL. */
SV_EXPORT OSStatus SVSampleBufferSetOutputPresentationTimeStamp(SVSampleBufferRef sbuf,
                                                                SVTime outputPresentationTimeStamp) SV_NOEXCEPT;
/* Computed from the output presentation time (override included). */
SV_EXPORT SVTime SVSampleBufferGetOutputDecodeTimeStamp(SVSampleBufferRef sbuf) SV_NOEXCEPT;
SV_EXPORT SVTime SVSampleBufferGetOutputDuration(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* ==== Timing and size arrays ================================================= */

/* Copies the stored timing entries (1 for an image-buffer sample buffer; 1
 * when one entry stands for every sample).  *timingArrayEntriesNeededOut
 * (when not NULL) receives the count before the capacity is checked, so a
 * caller can size its array from a kSVSampleBufferError_ArrayTooSmall reply.
 * A NULL `timingArrayOut` only asks for the count (returns 0).  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing (NULL buffer),
 * kSVSampleBufferError_Invalidated, kSVSampleBufferError_BufferHasNoSampleTimingInfo
 * (data buffer without entries), kSVSampleBufferError_ArrayTooSmall.
 * Nothing is written to `timingArrayOut` on failure. */
SV_EXPORT OSStatus SVSampleBufferGetSampleTimingInfoArray(SVSampleBufferRef sbuf, SVItemCount timingArrayEntries,
                                                          SVSampleTimingInfo *timingArrayOut,
                                                          SVItemCount *timingArrayEntriesNeededOut) SV_NOEXCEPT;

/* As SVSampleBufferGetSampleTimingInfoArray, then every one of the
 * `timingArrayEntries` slots of the caller's array is turned into output
 * timing with the buffer's trims, speed and reverse (the output presentation
 * override is not used).  Slots past the entries copied are transformed as
 * they stand, so pass the count needed as the capacity.  A NULL or
 * invalidated buffer gives kSVSampleBufferError_Invalidated. */
SV_EXPORT OSStatus SVSampleBufferGetOutputSampleTimingInfoArray(SVSampleBufferRef sbuf, SVItemCount timingArrayEntries,
                                                                SVSampleTimingInfo *timingArrayOut,
                                                                SVItemCount *timingArrayEntriesNeededOut) SV_NOEXCEPT;

/* Copies the timing of one sample (with one entry for every sample, that
 * entry) into *timingInfoOut, which must not be NULL.  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing, kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_SampleIndexOutOfRange,
 * kSVSampleBufferError_BufferHasNoSampleTimingInfo. */
SV_EXPORT OSStatus SVSampleBufferGetSampleTimingInfo(SVSampleBufferRef sbuf, SVItemIndex sampleIndex,
                                                     SVSampleTimingInfo *timingInfoOut) SV_NOEXCEPT;

/* The size in bytes of one sample; 0 whenever it is not known (NULL,
 * invalidated or image-buffer sample buffer, index out of range, no usable
 * size array). */
SV_EXPORT size_t SVSampleBufferGetSampleSize(SVSampleBufferRef sbuf, SVItemIndex sampleIndex) SV_NOEXCEPT;

/* Copies the stored sizes (1 when one size stands for every sample).
 * *sizeArrayEntriesNeededOut is required and receives the count (0 when
 * there are no sizes) before the capacity is checked; a NULL `sizeArrayOut`
 * only asks for the count.  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing, kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_BufferHasNoSampleSizes (also for image-buffer sample
 * buffers), kSVSampleBufferError_ArrayTooSmall. */
SV_EXPORT OSStatus SVSampleBufferGetSampleSizeArray(SVSampleBufferRef sbuf, SVItemCount sizeArrayEntries,
                                                    size_t *sizeArrayOut,
                                                    SVItemCount *sizeArrayEntriesNeededOut) SV_NOEXCEPT;

/* The sum of the sample sizes (wrapping in size_t); 0 when unknown. */
SV_EXPORT size_t SVSampleBufferGetTotalSampleSize(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* ==== Data buffer, readiness and failure ===================================== */

/* Attaches the data buffer of a data-buffer sample buffer made without one
 * (retained).  Does not make the data ready.  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing, kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_InvalidMediaTypeForOperation (image-buffer sample
 * buffer), kSVSampleBufferError_AlreadyHasDataBuffer. */
SV_EXPORT OSStatus SVSampleBufferSetDataBuffer(SVSampleBufferRef sbuf, SVBlockBufferRef dataBuffer) SV_NOEXCEPT;

/* Whether the data is ready, answered by the last buffer of the tracking
 * chain (false when that buffer is invalidated; false for NULL). */
SV_EXPORT Boolean SVSampleBufferDataIsReady(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* Marks this buffer's own data ready (a tracking chain is not followed: a
 * buffer that tracks another keeps answering with the other's readiness).
 * Posts kSVSampleBufferNotification_DataBecameReady through the local
 * notification center, with the buffer as the object, when the flag
 * changes.  Statuses: kSVSampleBufferError_RequiredParameterMissing,
 * kSVSampleBufferError_Invalidated. */
SV_EXPORT OSStatus SVSampleBufferSetDataReady(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* Makes the data ready through the make-data-ready callback of the last
 * buffer of the tracking chain, which is called with that buffer (not with
 * `sbuf`).  Returns 0 when the data is (or already was) ready; the
 * callback's own status when it fails (the data stays not ready); 0 without
 * marking it ready when the buffer was invalidated while the callback ran;
 * kSVSampleBufferError_BufferNotReady when there is no callback;
 * kSVSampleBufferError_Invalidated; kSVSampleBufferError_RequiredParameterMissing.
 * Posts kSVSampleBufferNotification_DataBecameReady (object: the deciding
 * buffer) when it marks the data ready. */
SV_EXPORT OSStatus SVSampleBufferMakeDataReady(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* Makes `sbuf` answer readiness questions with `sbufToTrack`'s readiness
 * (retained until `sbuf` is finalized).  Tracking another buffer later
 * replaces the link; the replaced buffer is NOT released (it stays
 * retained for the life of `sbuf`).  Returns 0, or
 * kSVSampleBufferError_RequiredParameterMissing for a NULL `sbufToTrack`;
 * a NULL `sbuf` does nothing. */
SV_EXPORT OSStatus SVSampleBufferTrackDataReadiness(SVSampleBufferRef sbuf, SVSampleBufferRef sbufToTrack) SV_NOEXCEPT;

/* Records that the data could not be produced (`status` non-zero; 0 clears
 * the record).  Readiness is not touched.  A non-zero status posts
 * kSVSampleBufferNotification_DataFailed with the buffer as the object and
 * the status under kSVSampleBufferNotificationParameter_OSStatus (a
 * CFNumber) in the user info.  Returns 0 (a NULL buffer does nothing). */
SV_EXPORT OSStatus SVSampleBufferSetDataFailed(SVSampleBufferRef sbuf, OSStatus status) SV_NOEXCEPT;

/* True when a failure status is recorded; it is written to *statusOut when
 * that is not NULL. */
SV_EXPORT Boolean SVSampleBufferHasDataFailed(SVSampleBufferRef sbuf, OSStatus *statusOut) SV_NOEXCEPT;

/* ==== Invalidation =========================================================== */

/* Calls the invalidate handler (if any) with the buffer, then marks it
 * invalid.  Statuses: kSVSampleBufferError_RequiredParameterMissing,
 * kSVSampleBufferError_Invalidated when it already is (the handler runs at
 * most once). */
SV_EXPORT OSStatus SVSampleBufferInvalidate(SVSampleBufferRef sbuf) SV_NOEXCEPT;

/* Installs the function to call at invalidation, replacing any handler or
 * callback installed before (there is one slot).  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing, kSVSampleBufferError_Invalidated. */
SV_EXPORT OSStatus SVSampleBufferSetInvalidateCallback(SVSampleBufferRef sbuf,
                                                       SVSampleBufferInvalidateCallback invalidateCallback,
                                                       uint64_t invalidateRefCon) SV_NOEXCEPT;

#if __BLOCKS__
/* As SVSampleBufferSetInvalidateCallback with a block, which is copied and
 * released when replaced or when the buffer is finalized. */
SV_EXPORT OSStatus SVSampleBufferSetInvalidateHandler(SVSampleBufferRef sbuf,
                                                      SVSampleBufferInvalidateHandler invalidateHandler) SV_NOEXCEPT;
#endif

/* ==== Copies and iteration ===================================================
 * Every copy retains its source and tracks its readiness, and takes over
 * the source's format description, make-data-ready callback, failure status
 * and output presentation override.  Buffer attachments are not copied. */

/* A copy sharing the source's data or image buffer, with copies of its
 * timing and sizes and a new array holding the same per-sample attachment
 * dictionaries (edits through either buffer are seen by both).  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing, kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_AllocationFailed (*sampleBufferOut set to NULL). */
SV_EXPORT OSStatus SVSampleBufferCreateCopy(CFAllocatorRef allocator, SVSampleBufferRef sbuf,
                                            SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* A copy whose timing is replaced by the 0 or 1 entries given (0 entries:
 * a data-buffer copy then has no timing, an image-buffer copy keeps the
 * source's).  Statuses: kSVSampleBufferError_InvalidEntryCount for 2 or more
 * entries, kSVSampleBufferError_RequiredParameterMissing for a count without
 * an array, then those of SVSampleBufferCreateCopy. */
SV_EXPORT OSStatus SVSampleBufferCreateCopyWithNewTiming(CFAllocatorRef allocator, SVSampleBufferRef sbuf,
                                                         SVItemCount numSampleTimingEntries,
                                                         const SVSampleTimingInfo *sampleTimingArray,
                                                         SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* A data-buffer sample buffer of the samples `sampleRange` (location,
 * length) of `sbuf`, whose data buffer references the bytes of those
 * samples in the source's data buffer (nothing is copied).  The byte range
 * comes from the sizes; without sizes every sample counts as the data
 * length divided by the sample count.  Per-sample attachments are not
 * carried over.  Statuses: kSVSampleBufferError_InvalidMediaTypeForOperation
 * (image-buffer sample buffer), kSVSampleBufferError_RequiredParameterMissing,
 * kSVSampleBufferError_CannotSubdivide (no samples),
 * kSVSampleBufferError_SampleIndexOutOfRange (range past the end),
 * kSVSampleBufferError_AllocationFailed.  `sbuf` must not be NULL. */
SV_EXPORT OSStatus SVSampleBufferCopySampleBufferForRange(CFAllocatorRef allocator, SVSampleBufferRef sbuf,
                                                          CFRange sampleRange,
                                                          SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* Calls `callback` for each sample in order with a one-sample range copy
 * and the sample's index; stops at, and returns, the first non-zero status
 * of the callback or of the range copy.  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing (NULL buffer),
 * kSVSampleBufferError_InvalidMediaTypeForOperation (image-buffer sample
 * buffer), kSVSampleBufferError_CannotSubdivide (no samples). */
SV_EXPORT OSStatus SVSampleBufferCallForEachSample(SVSampleBufferRef sbuf, SVSampleBufferForEachSampleCallback callback,
                                                   void *refcon) SV_NOEXCEPT;

/* Gives the Annex B writer memory for a packet of `size` bytes (NULL when
 * none can be had); the memory belongs to whoever provides it. */
typedef void *(*SVSampleBufferPacketAllocatorFunction)(size_t size, void *refcon);

/* The function-pointer form of _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer
 * (below): rewrites an 'avc1' or 'hvc1' sample as Annex B with 4-byte start
 * codes into memory from `allocate(size, refcon)`, called once with the exact
 * size after the input has been checked.  With `includeParameterSets` true a
 * sync sample is preceded by the description's parameter sets.  Same rules
 * and statuses (the format-description family's: -12710 for NULL arguments,
 * another subtype, no or non-contiguous data; -12711 when `allocate` returns
 * NULL). */
SV_EXPORT OSStatus SVSampleBufferWriteAnnexB(SVSampleBufferRef sampleBuffer, Boolean includeParameterSets,
                                             const uint8_t *nalTypesToSkip, size_t skipCount,
                                             SVSampleBufferPacketAllocatorFunction allocate, void *refcon) SV_NOEXCEPT;

/* The function-pointer form of _SVSampleBufferOutputVideoSampleAsBytes
 * (below), for every compiler: the packet's memory comes from
 * `allocate(size, refcon)`.  Same rules, statuses and log lines as the block
 * form (a NULL `allocate` counts as a NULL block). */
SV_EXPORT OSStatus _SVSampleBufferOutputVideoSampleAsBytesWithAllocatorFunction(
    SVSampleBufferRef sbuf, int32_t extraDataMode, SVSampleBufferPacketAllocatorFunction allocate,
    void *refcon) SV_NOEXCEPT;

#if __BLOCKS__
/* SVSampleBufferCallForEachSample with a block. */
SV_EXPORT OSStatus SVSampleBufferCallBlockForEachSample(SVSampleBufferRef sbuf,
                                                        SVSampleBufferForEachSampleHandler handler) SV_NOEXCEPT;

/* Writes the one video sample of `sbuf` as a contiguous packet in memory
 * that `packetAllocator` returns.  For 'h263' and 'mp4v' the packet is the
 * sample's bytes, preceded on a sync sample, when `extraDataMode` is 1, by
 * the "extradata" entry of the description's sample-description extension
 * atoms.  Statuses: kSVSampleBufferError_RequiredParameterMissing (NULL or
 * invalidated buffer, no format description, no data buffer),
 * kSVSampleBufferError_AllocationFailed (the allocator returned NULL),
 * kSVSampleBufferError_InvalidMediaFormat (a subtype that cannot be
 * written), or the status of copying the bytes. */
SV_EXPORT OSStatus _SVSampleBufferOutputVideoSampleAsBytes(SVSampleBufferRef sbuf, int32_t extraDataMode,
                                                           SVSampleBufferPacketAllocator packetAllocator) SV_NOEXCEPT;

/* Rewrites the length-prefixed units of an 'avc1' or 'hvc1' sample buffer
 * as Annex B with 4-byte start codes, into one buffer obtained from
 * `allocator` with the exact total size (the allocator is called once, after
 * the input has been checked; the buffer belongs to whoever it gave it to).  When `includeParameterSets` is 1
 * and the sample is a sync sample (its first sample-attachments dictionary
 * has no true kSVSampleAttachmentKey_NotSync), the format description's
 * parameter sets come first.  Units with an empty payload are dropped, and
 * so are units whose first byte & 0x1F is one of the `skipCount` bytes of
 * `nalTypesToSkip` (may be NULL when skipCount is 0).  Statuses: -12710
 * (NULL arguments, another subtype, no data, non-contiguous data), -12711
 * (the allocator returned NULL), or the parameter-set getter's failure.
 * The statuses are the format-description family's. */
SV_EXPORT OSStatus _SVCreateAnnexBEncodingOfAVCOrHEVCSampleBuffer(SVSampleBufferRef sampleBuffer,
                                                                  int32_t includeParameterSets,
                                                                  const uint8_t *nalTypesToSkip, size_t skipCount,
                                                                  SVSampleBufferPacketAllocator allocator) SV_NOEXCEPT;
#endif

/* ==== Audio sample buffers ====================================================
 *
 * An audio sample buffer is a data-buffer sample buffer whose format
 * description is an audio one (media type 'soun'): every call above works
 * on it.  Its samples are packets: for linear PCM a packet is one frame
 * (one sample of every channel), for a compressed format one coded packet
 * (1024 frames of AAC, 960 or so of Opus).  Its data holds the packets one
 * after another; for non-interleaved linear PCM it holds the channels'
 * planes one after another, channel 0 first, each plane `numSamples` *
 * mBytesPerFrame bytes.
 *
 * Packet descriptions give each packet's byte offset in the data, its size
 * and (for formats whose frames per packet vary) its frame count.  They
 * must come in data order, without overlap, inside the data, and the data
 * must end where the last packet ends; gaps between packets are allowed.
 *
 * Timing is derived from the format: one timing entry whose duration is
 * one packet's (mFramesPerPacket / mSampleRate, in the sample rate's
 * timescale when the rate is a whole number), the given presentation time
 * stamp and no decode time stamp (decode order is presentation order).
 * When mFramesPerPacket is 0 the packets' frame counts are summed and the
 * sum spread evenly, so that the buffer's duration is exactly the total
 * frames over the sample rate.  A range copy or per-sample iteration of a
 * buffer made by the creators below gives each part its own presentation
 * time (the buffer's plus the frames before the part) and duration, and its
 * own packet descriptions, rebased to its data.  Trims
 * (kSVSampleBufferAttachmentKey_TrimDurationAtStart and ...AtEnd, for
 * example an encoder's priming frames) and speed apply as for any buffer.
 *
 * Failures that need explaining (bad packet descriptions, formats that
 * cannot be timed, buffer lists of the wrong shape) are logged at level 3. */

/* Asks SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer for buffers
 * whose mData is 16-byte aligned. */
enum { kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment = 1u << 0 };

/* Creates an audio sample buffer of `numSamples` packets (at least 1) with
 * the timing derived as above from `formatDescription` (an audio
 * description, retained) and `presentationTimeStamp`.  `dataBuffer` may be
 * NULL (attach it later, for example with
 * SVSampleBufferSetDataBufferFromAudioBufferList); when given, its length
 * must be what the packets say.  Sizes: one entry when the format has
 * constant bytes per packet (mBytesPerPacket, or mBytesPerFrame * channels
 * for non-interleaved PCM), else one per packet from the descriptions.
 * `packetDescriptions` (`numSamples` records, copied) are required when
 * mBytesPerPacket is 0 (AAC, Opus, FLAC...), refused for linear PCM, and
 * optional otherwise.  Linear PCM needs mFramesPerPacket 1, mBytesPerFrame
 * non-zero and mBytesPerPacket equal to it.  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing (NULL `sampleBufferOut`
 * or `formatDescription`, missing packet descriptions),
 * kSVSampleBufferError_InvalidMediaTypeForOperation (not an audio
 * description), kSVSampleBufferError_InvalidAudioData (see its comment; a
 * sample rate that is not finite and positive; mFramesPerPacket 0 without
 * frame counts in the descriptions; no packets),
 * kSVSampleBufferError_AllocationFailed.  *sampleBufferOut is set to NULL
 * on every failure after the first. */
SV_EXPORT OSStatus SVAudioSampleBufferCreateWithPacketDescriptions(
    CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, Boolean dataReady,
    SVSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
    SVFormatDescriptionRef formatDescription, SVItemCount numSamples, SVTime presentationTimeStamp,
    const AudioStreamPacketDescription *packetDescriptions, SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* SVAudioSampleBufferCreateWithPacketDescriptions with the data ready and
 * no make-data-ready callback. */
SV_EXPORT OSStatus SVAudioSampleBufferCreateReadyWithPacketDescriptions(
    CFAllocatorRef allocator, SVBlockBufferRef dataBuffer, SVFormatDescriptionRef formatDescription,
    SVItemCount numSamples, SVTime presentationTimeStamp, const AudioStreamPacketDescription *packetDescriptions,
    SVSampleBufferRef *sampleBufferOut) SV_NOEXCEPT;

/* Count-then-copy of the packet descriptions, sizes in bytes.
 * *packetDescriptionsSizeNeededOut (when not NULL) receives the size
 * before anything is checked against `packetDescriptionsSize` (0 when the
 * buffer has none).  A NULL `packetDescriptionsOut` only asks for the size.
 * Statuses: kSVSampleBufferError_RequiredParameterMissing (NULL buffer),
 * kSVSampleBufferError_Invalidated, kSVSampleBufferError_InvalidMediaTypeForOperation
 * (image-buffer sample buffer), kSVSampleBufferError_ArrayTooSmall
 * (nothing written). */
SV_EXPORT OSStatus SVSampleBufferGetAudioStreamPacketDescriptions(SVSampleBufferRef sbuf, size_t packetDescriptionsSize,
                                                                  AudioStreamPacketDescription *packetDescriptionsOut,
                                                                  size_t *packetDescriptionsSizeNeededOut) SV_NOEXCEPT;

/* The buffer's own packet descriptions (borrowed, valid while the buffer
 * lives; NULL when it has none) and their size in bytes (0).  Both outputs
 * are optional.  Statuses as SVSampleBufferGetAudioStreamPacketDescriptions
 * (without ArrayTooSmall). */
SV_EXPORT OSStatus SVSampleBufferGetAudioStreamPacketDescriptionsPtr(
    SVSampleBufferRef sbuf, const AudioStreamPacketDescription **packetDescriptionsPointerOut,
    size_t *packetDescriptionsSizeOut) SV_NOEXCEPT;

/* Fills `bufferListOut` with buffers over the sample buffer's bytes: one
 * buffer (all channels) for interleaved PCM and compressed formats, one
 * per channel (mNumberChannels 1) for non-interleaved PCM.  The buffers
 * point into the data in place when it is contiguous and aligned (to the
 * channel sample's size, up to 8, for PCM; to 16 bytes with
 * kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment); otherwise
 * into one new contiguous copy (every plane starting 16-byte aligned when
 * asked), made through `blockBufferBlockAllocator`.  *blockBufferOut
 * receives a retained block buffer that keeps the bytes alive (the data
 * buffer itself, or the copy): release it when done with the list.
 * *bufferListSizeNeededOut (when not NULL) receives the list's size in
 * bytes, offsetof(AudioBufferList, mBuffers) + n * sizeof(AudioBuffer);
 * with a NULL `bufferListOut` that is all the call does.  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing (NULL buffer, or NULL
 * `blockBufferOut` with a list), kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_InvalidMediaTypeForOperation (not an audio sample
 * buffer), kSVSampleBufferError_BufferNotReady (no data, or data not ready),
 * kSVSampleBufferError_ArrayTooSmall (`bufferListSize` below the size
 * needed), kSVSampleBufferError_InvalidAudioData (PCM data whose length does
 * not match the sample count, data over 4 GiB),
 * kSVSampleBufferError_AllocationFailed.  Nothing is written to the list
 * or *blockBufferOut on failure. */
SV_EXPORT OSStatus SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
    SVSampleBufferRef sbuf, size_t *bufferListSizeNeededOut, AudioBufferList *bufferListOut, size_t bufferListSize,
    CFAllocatorRef blockBufferStructureAllocator, CFAllocatorRef blockBufferBlockAllocator, uint32_t flags,
    SVBlockBufferRef *blockBufferOut) SV_NOEXCEPT;

/* Copies `numFrames` frames from `frameOffset` of a linear PCM sample
 * buffer into the caller's buffers, converting nothing: the list must have
 * the format's shape (one buffer of all channels when interleaved, one
 * single-channel buffer per channel otherwise) and each buffer room for the
 * frames.  Each buffer's mDataByteSize is set to the bytes written.
 * Statuses: kSVSampleBufferError_RequiredParameterMissing (NULL buffer or
 * list, NULL mData), kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_InvalidMediaTypeForOperation (not linear PCM),
 * kSVSampleBufferError_BufferNotReady, kSVSampleBufferError_SampleIndexOutOfRange
 * (frames outside the buffer), kSVSampleBufferError_AudioBufferListMismatch
 * (wrong number of buffers or channels), kSVSampleBufferError_ArrayTooSmall
 * (a buffer too small; nothing written), kSVSampleBufferError_InvalidAudioData
 * (data length not matching the sample count), or a block-buffer status. */
SV_EXPORT OSStatus SVSampleBufferCopyPCMDataIntoAudioBufferList(SVSampleBufferRef sbuf, int32_t frameOffset,
                                                                int32_t numFrames,
                                                                AudioBufferList *bufferList) SV_NOEXCEPT;

/* Gives an audio sample buffer made without data its data: the bytes of
 * `bufferList` are copied, buffer after buffer, into one new block buffer
 * (structure from `blockBufferStructureAllocator`, bytes from
 * `blockBufferBlockAllocator`; 16-byte aligned with
 * kSVSampleBufferFlag_AudioBufferList_Assure16ByteAlignment), which is
 * attached, and the buffer is marked ready.  The list must have the
 * format's shape and hold exactly the sample count's bytes (for PCM
 * numSamples frames in every buffer; for compressed formats what the
 * packet descriptions or the constant packet size say).  Statuses:
 * kSVSampleBufferError_RequiredParameterMissing, kSVSampleBufferError_Invalidated,
 * kSVSampleBufferError_InvalidMediaTypeForOperation,
 * kSVSampleBufferError_AlreadyHasDataBuffer,
 * kSVSampleBufferError_AudioBufferListMismatch,
 * kSVSampleBufferError_AllocationFailed; the buffer is unchanged on
 * failure. */
SV_EXPORT OSStatus SVSampleBufferSetDataBufferFromAudioBufferList(SVSampleBufferRef sbuf,
                                                                  CFAllocatorRef blockBufferStructureAllocator,
                                                                  CFAllocatorRef blockBufferBlockAllocator,
                                                                  uint32_t flags,
                                                                  const AudioBufferList *bufferList) SV_NOEXCEPT;

/* ==== Per-sample attachments ================================================= */

/* The buffer's array of per-sample attachment dictionaries (borrowed):
 * one mutable dictionary per sample (one for an image-buffer sample
 * buffer), edited in place with the kSVSampleAttachmentKey_ keys of
 * <Sorvel/SVAttachment.h>.  When the buffer has none yet and
 * `createIfNecessary` is true, an array of empty dictionaries is made (not
 * for a data-buffer sample buffer of 0 samples, which answers NULL).
 * NULL answers NULL; invalidation is not checked. */
SV_EXPORT CFArrayRef SVSampleBufferGetSampleAttachmentsArray(SVSampleBufferRef sbuf,
                                                             Boolean createIfNecessary) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVSAMPLEBUFFER_H */
