/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Attachments: key-value pairs hung on a buffer as a whole (each with a
 * propagation mode) and, for sample buffers, on each sample.
 *
 * The seven functions below accept three kinds of target: an SVSampleBuffer,
 * a CVPixelBuffer or a CVOpenGLESTexture.  They hand the call on to
 * CoreVideo's buffer-attachment functions unchanged; any other target (NULL
 * included) is logged at level 3 and the call does nothing (or returns
 * NULL).  They take no lock of their own; CoreVideo's attachment storage
 * guards itself, so any thread may call them on a shared target.
 *
 * Borrowed results (SVGetAttachment) stay valid only until the attachment
 * is replaced or removed.  On a target that other threads may change,
 * "get, then retain" is not safe (the writer's release can come between
 * the two): use SVCopyAttachment or SVCopyDictionaryOfAttachments, which
 * return a reference retained under the attachment lock.
 *
 * Every key, value and notification name below is a constant string whose
 * text is exactly its own name.
 */
#ifndef SORVEL_SVATTACHMENT_H
#define SORVEL_SVATTACHMENT_H

#include <Sorvel/SVBase.h>

SV_EXTERN_C_BEGIN

/* An SVSampleBuffer, CVPixelBuffer or CVOpenGLESTexture. */
typedef CFTypeRef SVAttachmentBearerRef;

/* The same numbers as CoreVideo's attachment modes. */
typedef uint32_t SVAttachmentMode;
enum { kSVAttachmentMode_ShouldNotPropagate = 0, kSVAttachmentMode_ShouldPropagate = 1 };

/* Sets `key` to `value` (both retained by the target). */
SV_EXPORT void SVSetAttachment(SVAttachmentBearerRef target, CFStringRef key, CFTypeRef value,
                               SVAttachmentMode attachmentMode) SV_NOEXCEPT;
/* The value for `key` (borrowed) or NULL; *attachmentModeOut, when not
 * NULL, receives the mode it was set with. */
SV_EXPORT CFTypeRef SVGetAttachment(SVAttachmentBearerRef target, CFStringRef key,
                                    SVAttachmentMode *attachmentModeOut) SV_NOEXCEPT;
/* As SVGetAttachment, but the value is owned by the caller (release it):
 * retained under the target's attachment lock, so it stays valid whatever
 * other threads set or remove.  Delegates to CVBufferCopyAttachment; a
 * target of no accepted kind is logged at level 3 like the others. */
SV_EXPORT CFTypeRef SVCopyAttachment(SVAttachmentBearerRef target, CFStringRef key,
                                     SVAttachmentMode *attachmentModeOut) SV_NOEXCEPT;
SV_EXPORT void SVRemoveAttachment(SVAttachmentBearerRef target, CFStringRef key) SV_NOEXCEPT;
SV_EXPORT void SVRemoveAllAttachments(SVAttachmentBearerRef target) SV_NOEXCEPT;
/* An immutable copy (owned by the caller) of the attachments of one mode,
 * made with `allocator`; NULL when there are none of that mode. */
SV_EXPORT CFDictionaryRef SVCopyDictionaryOfAttachments(CFAllocatorRef allocator, SVAttachmentBearerRef target,
                                                        SVAttachmentMode attachmentMode) SV_NOEXCEPT;
/* Sets every entry of `theAttachments` with one mode. */
SV_EXPORT void SVSetAttachments(SVAttachmentBearerRef target, CFDictionaryRef theAttachments,
                                SVAttachmentMode attachmentMode) SV_NOEXCEPT;
/* Copies the source's should-propagate attachments onto the destination. */
SV_EXPORT void SVPropagateAttachments(SVAttachmentBearerRef source, SVAttachmentBearerRef destination) SV_NOEXCEPT;

/* Per-sample attachment keys, in the dictionaries of
 * SVSampleBufferGetSampleAttachmentsArray. */
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_NotSync;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_PartialSync;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_HasRedundantCoding;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_IsDependedOnByOthers;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_DependsOnOthers;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_EarlierDisplayTimesAllowed;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_DisplayImmediately;
SV_EXPORT const CFStringRef kSVSampleAttachmentKey_DoNotDisplay;

/* Buffer attachment keys.  The library itself reads TrimDurationAtStart,
 * TrimDurationAtEnd (SVTime dictionaries) and SpeedMultiplier (a CFNumber)
 * when it computes output timing; the others are carried for clients. */
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_ResetDecoderBeforeDecoding;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_DrainAfterDecoding;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_PostNotificationWhenConsumed;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_ResumeOutput;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_TransitionID;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_TrimDurationAtStart;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_TrimDurationAtEnd;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_SpeedMultiplier;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_Reverse;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_FillDiscontinuitiesWithSilence;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_EmptyMedia;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_PermanentEmptyMedia;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_DisplayEmptyMediaImmediately;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_EndsPreviousSampleDuration;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_SampleReferenceURL;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_SampleReferenceByteOffset;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_GradualDecoderRefresh;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_DroppedFrameReason;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_DroppedFrameReasonInfo;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_ForceKeyFrame;
SV_EXPORT const CFStringRef kSVSampleBufferAttachmentKey_StillImageLensStabilizationInfo;

/* Values of some of those keys. */
SV_EXPORT const CFStringRef kSVSampleBufferDroppedFrameReason_FrameWasLate;
SV_EXPORT const CFStringRef kSVSampleBufferDroppedFrameReason_OutOfBuffers;
SV_EXPORT const CFStringRef kSVSampleBufferDroppedFrameReason_Discontinuity;
SV_EXPORT const CFStringRef kSVSampleBufferDroppedFrameReasonInfo_CameraModeSwitch;
SV_EXPORT const CFStringRef kSVSampleBufferLensStabilizationInfo_Active;
SV_EXPORT const CFStringRef kSVSampleBufferLensStabilizationInfo_Off;

/* Notification names and their parameters. */
SV_EXPORT const CFStringRef kSVSampleBufferNotification_DataBecameReady;
SV_EXPORT const CFStringRef kSVSampleBufferNotification_DataFailed;
SV_EXPORT const CFStringRef kSVSampleBufferNotificationParameter_OSStatus;
SV_EXPORT const CFStringRef kSVSampleBufferConduitNotification_InhibitOutputUntil;
SV_EXPORT const CFStringRef kSVSampleBufferConduitNotification_ResetOutput;
SV_EXPORT const CFStringRef kSVSampleBufferConduitNotification_UpcomingOutputPTSRangeChanged;
SV_EXPORT const CFStringRef kSVSampleBufferConsumerNotification_BufferConsumed;
SV_EXPORT const CFStringRef kSVSampleBufferConduitNotificationParameter_ResumeTag;
SV_EXPORT const CFStringRef
    kSVSampleBufferConduitNotificationParameter_UpcomingOutputPTSRangeMayOverlapQueuedOutputPTSRange;
SV_EXPORT const CFStringRef kSVSampleBufferConduitNotificationParameter_MinUpcomingOutputPTS;
SV_EXPORT const CFStringRef kSVSampleBufferConduitNotificationParameter_MaxUpcomingOutputPTS;

SV_EXTERN_C_END

#endif /* SORVEL_SVATTACHMENT_H */
