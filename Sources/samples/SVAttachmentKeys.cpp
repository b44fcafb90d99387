// SPDX-License-Identifier: Apache-2.0
// The attachment keys, values and notification names of the sample-buffer
// family: compile-time constant strings whose text is their own name.

#include <Sorvel/SVAttachment.h>

// Per-sample attachment keys, in the dictionaries of
// SVSampleBufferGetSampleAttachmentsArray.
const CFStringRef kSVSampleAttachmentKey_NotSync = CFSTR("kSVSampleAttachmentKey_NotSync");
const CFStringRef kSVSampleAttachmentKey_PartialSync = CFSTR("kSVSampleAttachmentKey_PartialSync");
const CFStringRef kSVSampleAttachmentKey_HasRedundantCoding = CFSTR("kSVSampleAttachmentKey_HasRedundantCoding");
const CFStringRef kSVSampleAttachmentKey_IsDependedOnByOthers = CFSTR("kSVSampleAttachmentKey_IsDependedOnByOthers");
const CFStringRef kSVSampleAttachmentKey_DependsOnOthers = CFSTR("kSVSampleAttachmentKey_DependsOnOthers");
const CFStringRef kSVSampleAttachmentKey_EarlierDisplayTimesAllowed =
    CFSTR("kSVSampleAttachmentKey_EarlierDisplayTimesAllowed");
const CFStringRef kSVSampleAttachmentKey_DisplayImmediately = CFSTR("kSVSampleAttachmentKey_DisplayImmediately");
const CFStringRef kSVSampleAttachmentKey_DoNotDisplay = CFSTR("kSVSampleAttachmentKey_DoNotDisplay");

// Buffer attachment keys.  The library itself reads TrimDurationAtStart,
// TrimDurationAtEnd (SVTime dictionaries) and SpeedMultiplier (a CFNumber)
// when it computes output timing; the others are carried for clients.
const CFStringRef kSVSampleBufferAttachmentKey_ResetDecoderBeforeDecoding =
    CFSTR("kSVSampleBufferAttachmentKey_ResetDecoderBeforeDecoding");
const CFStringRef kSVSampleBufferAttachmentKey_DrainAfterDecoding =
    CFSTR("kSVSampleBufferAttachmentKey_DrainAfterDecoding");
const CFStringRef kSVSampleBufferAttachmentKey_PostNotificationWhenConsumed =
    CFSTR("kSVSampleBufferAttachmentKey_PostNotificationWhenConsumed");
const CFStringRef kSVSampleBufferAttachmentKey_ResumeOutput = CFSTR("kSVSampleBufferAttachmentKey_ResumeOutput");
const CFStringRef kSVSampleBufferAttachmentKey_TransitionID = CFSTR("kSVSampleBufferAttachmentKey_TransitionID");
const CFStringRef kSVSampleBufferAttachmentKey_TrimDurationAtStart =
    CFSTR("kSVSampleBufferAttachmentKey_TrimDurationAtStart");
const CFStringRef kSVSampleBufferAttachmentKey_TrimDurationAtEnd =
    CFSTR("kSVSampleBufferAttachmentKey_TrimDurationAtEnd");
const CFStringRef kSVSampleBufferAttachmentKey_SpeedMultiplier = CFSTR("kSVSampleBufferAttachmentKey_SpeedMultiplier");
const CFStringRef kSVSampleBufferAttachmentKey_Reverse = CFSTR("kSVSampleBufferAttachmentKey_Reverse");
const CFStringRef kSVSampleBufferAttachmentKey_FillDiscontinuitiesWithSilence =
    CFSTR("kSVSampleBufferAttachmentKey_FillDiscontinuitiesWithSilence");
const CFStringRef kSVSampleBufferAttachmentKey_EmptyMedia = CFSTR("kSVSampleBufferAttachmentKey_EmptyMedia");
const CFStringRef kSVSampleBufferAttachmentKey_PermanentEmptyMedia =
    CFSTR("kSVSampleBufferAttachmentKey_PermanentEmptyMedia");
const CFStringRef kSVSampleBufferAttachmentKey_DisplayEmptyMediaImmediately =
    CFSTR("kSVSampleBufferAttachmentKey_DisplayEmptyMediaImmediately");
const CFStringRef kSVSampleBufferAttachmentKey_EndsPreviousSampleDuration =
    CFSTR("kSVSampleBufferAttachmentKey_EndsPreviousSampleDuration");
const CFStringRef kSVSampleBufferAttachmentKey_SampleReferenceURL =
    CFSTR("kSVSampleBufferAttachmentKey_SampleReferenceURL");
const CFStringRef kSVSampleBufferAttachmentKey_SampleReferenceByteOffset =
    CFSTR("kSVSampleBufferAttachmentKey_SampleReferenceByteOffset");
const CFStringRef kSVSampleBufferAttachmentKey_GradualDecoderRefresh =
    CFSTR("kSVSampleBufferAttachmentKey_GradualDecoderRefresh");
const CFStringRef kSVSampleBufferAttachmentKey_DroppedFrameReason =
    CFSTR("kSVSampleBufferAttachmentKey_DroppedFrameReason");
const CFStringRef kSVSampleBufferAttachmentKey_DroppedFrameReasonInfo =
    CFSTR("kSVSampleBufferAttachmentKey_DroppedFrameReasonInfo");
const CFStringRef kSVSampleBufferAttachmentKey_ForceKeyFrame = CFSTR("kSVSampleBufferAttachmentKey_ForceKeyFrame");
const CFStringRef kSVSampleBufferAttachmentKey_StillImageLensStabilizationInfo =
    CFSTR("kSVSampleBufferAttachmentKey_StillImageLensStabilizationInfo");

// Values of some of those keys.
const CFStringRef kSVSampleBufferDroppedFrameReason_FrameWasLate =
    CFSTR("kSVSampleBufferDroppedFrameReason_FrameWasLate");
const CFStringRef kSVSampleBufferDroppedFrameReason_OutOfBuffers =
    CFSTR("kSVSampleBufferDroppedFrameReason_OutOfBuffers");
const CFStringRef kSVSampleBufferDroppedFrameReason_Discontinuity =
    CFSTR("kSVSampleBufferDroppedFrameReason_Discontinuity");
const CFStringRef kSVSampleBufferDroppedFrameReasonInfo_CameraModeSwitch =
    CFSTR("kSVSampleBufferDroppedFrameReasonInfo_CameraModeSwitch");
const CFStringRef kSVSampleBufferLensStabilizationInfo_Active = CFSTR("kSVSampleBufferLensStabilizationInfo_Active");
const CFStringRef kSVSampleBufferLensStabilizationInfo_Off = CFSTR("kSVSampleBufferLensStabilizationInfo_Off");

// Notification names and their parameters.
const CFStringRef kSVSampleBufferNotification_DataBecameReady = CFSTR("kSVSampleBufferNotification_DataBecameReady");
const CFStringRef kSVSampleBufferNotification_DataFailed = CFSTR("kSVSampleBufferNotification_DataFailed");
const CFStringRef kSVSampleBufferNotificationParameter_OSStatus =
    CFSTR("kSVSampleBufferNotificationParameter_OSStatus");
const CFStringRef kSVSampleBufferConduitNotification_InhibitOutputUntil =
    CFSTR("kSVSampleBufferConduitNotification_InhibitOutputUntil");
const CFStringRef kSVSampleBufferConduitNotification_ResetOutput =
    CFSTR("kSVSampleBufferConduitNotification_ResetOutput");
const CFStringRef kSVSampleBufferConduitNotification_UpcomingOutputPTSRangeChanged =
    CFSTR("kSVSampleBufferConduitNotification_UpcomingOutputPTSRangeChanged");
const CFStringRef kSVSampleBufferConsumerNotification_BufferConsumed =
    CFSTR("kSVSampleBufferConsumerNotification_BufferConsumed");
const CFStringRef kSVSampleBufferConduitNotificationParameter_ResumeTag =
    CFSTR("kSVSampleBufferConduitNotificationParameter_ResumeTag");
const CFStringRef kSVSampleBufferConduitNotificationParameter_UpcomingOutputPTSRangeMayOverlapQueuedOutputPTSRange =
    CFSTR("kSVSampleBufferConduitNotificationParameter_UpcomingOutputPTSRangeMayOverlapQueuedOutputPTSRange");
const CFStringRef kSVSampleBufferConduitNotificationParameter_MinUpcomingOutputPTS =
    CFSTR("kSVSampleBufferConduitNotificationParameter_MinUpcomingOutputPTS");
const CFStringRef kSVSampleBufferConduitNotificationParameter_MaxUpcomingOutputPTS =
    CFSTR("kSVSampleBufferConduitNotificationParameter_MaxUpcomingOutputPTS");
