// SPDX-License-Identifier: Apache-2.0
// Tests for the generic attachment calls: the exact log line of each call
// for a target of the wrong kind (and that nothing happens then), the three
// accepted kinds, propagation between kinds, copies that are NULL rather
// than empty, and the text of every exported key.
#include <CoreVideo/CoreVideo.h>
#include <Sorvel/SVAttachment.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

using sorvel_test::LogCapture;
using sorvel_test::TestAllocator;

SVSampleBufferRef makeSampleBuffer() {
    SVSampleBufferRef sbuf = nullptr;
    EXPECT_EQ(SVSampleBufferCreate(nullptr, nullptr, true, nullptr, nullptr, nullptr, 0, 0, nullptr, 0, nullptr, &sbuf),
              0);
    return sbuf;
}

CVPixelBufferRef makePixelBuffer() {
    CVPixelBufferRef buffer = nullptr;
    EXPECT_EQ(CVPixelBufferCreate(nullptr, 16, 16, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, nullptr, &buffer),
              kCVReturnSuccess);
    return buffer;
}

CVOpenGLESTextureRef makeTexture() {
    CVOpenGLESTextureRef texture = nullptr;
    EXPECT_EQ(_CVOpenGLESTextureCreate(nullptr, 0x0DE1, 3, 16, 16, false, &texture), kCVReturnSuccess);
    return texture;
}

SVFormatDescriptionRef makeFormatDescription() {
    SVFormatDescriptionRef description = nullptr;
    EXPECT_EQ(SVFormatDescriptionCreate(nullptr, kSVMediaType_Video, 0x61766331, nullptr, &description), 0);
    return description;
}

CFNumberRef number(int value) {
    return CFNumberCreate(nullptr, kCFNumberIntType, &value);
}

CFDictionaryRef dictionaryOf(CFStringRef key, CFTypeRef value) {
    const void *keys[] = {key};
    const void *values[] = {value};
    return CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                              &kCFTypeDictionaryValueCallBacks);
}

// ---- targets of the wrong kind ---------------------------------------------------

struct RefusalCase {
    const char *function;
    int line;
    const char *message;
    // Calls the function on `target` (a second bearer where one is needed)
    // and returns what it returned (NULL for void calls).
    std::function<CFTypeRef(CFTypeRef target, CFTypeRef bearer)> call;
};

// The fixed part of every message.
#define TARGET_TEXT " fails. The target needs to be a SVSampleBuffer, CVOpenGLESTexture or CVPixelBuffer"
#define BOTH_TEXT " fails. The source and destination need to be a SVSampleBuffer, CVOpenGLESTexture or CVPixelBuffer"

const std::vector<RefusalCase> &refusals() {
    static CFDictionaryRef entries = dictionaryOf(CFSTR("k"), kCFBooleanTrue);
    static const std::vector<RefusalCase> cases = {
        {"SVCopyDictionaryOfAttachments", 42, "SVCopyDictionaryOfAttachments" TARGET_TEXT ".",
         [](CFTypeRef t, CFTypeRef) -> CFTypeRef { return SVCopyDictionaryOfAttachments(nullptr, t, 1); }},
        {"SVGetAttachment", 54, "SVGetAttachment" TARGET_TEXT ".",
         [](CFTypeRef t, CFTypeRef) { return SVGetAttachment(t, CFSTR("k"), nullptr); }},
        {"SVPropagateAttachments", 67, "SVPropagateAttachments" BOTH_TEXT,
         [](CFTypeRef t, CFTypeRef bearer) -> CFTypeRef { return SVPropagateAttachments(t, bearer), nullptr; }},
        {"SVPropagateAttachments", 67, "SVPropagateAttachments" BOTH_TEXT,
         [](CFTypeRef t, CFTypeRef bearer) -> CFTypeRef { return SVPropagateAttachments(bearer, t), nullptr; }},
        {"SVRemoveAllAttachments", 79, "SVRemoveAllAttachments" TARGET_TEXT,
         [](CFTypeRef t, CFTypeRef) -> CFTypeRef { return SVRemoveAllAttachments(t), nullptr; }},
        {"SVRemoveAttachment", 90, "SVRemoveAttachment" TARGET_TEXT,
         [](CFTypeRef t, CFTypeRef) -> CFTypeRef { return SVRemoveAttachment(t, CFSTR("k")), nullptr; }},
        {"SVSetAttachment", 101, "SVSetAttachment" TARGET_TEXT,
         [](CFTypeRef t, CFTypeRef) -> CFTypeRef {
             return SVSetAttachment(t, CFSTR("k"), kCFBooleanTrue, 1), nullptr;
         }},
        {"SVSetAttachments", 112, "SVSetAttachments" TARGET_TEXT,
         [](CFTypeRef t, CFTypeRef) -> CFTypeRef { return SVSetAttachments(t, entries, 1), nullptr; }},
        // The owned read came later and has no fixed line (0: not checked).
        {"SVCopyAttachment", 0, "SVCopyAttachment" TARGET_TEXT ".",
         [](CFTypeRef t, CFTypeRef) { return SVCopyAttachment(t, CFSTR("k"), nullptr); }},
    };
    return cases;
}

TEST(SVAttachmentRefusalTest, EveryCallLogsItsOwnLineForAFormatDescription) {
    SVFormatDescriptionRef description = makeFormatDescription();
    SVSampleBufferRef bearer = makeSampleBuffer();
    SVSetAttachment(bearer, CFSTR("k"), kCFBooleanFalse, kSVAttachmentMode_ShouldPropagate);
    for (const RefusalCase &c : refusals()) {
        SCOPED_TRACE(c.function);
        LogCapture log;
        EXPECT_EQ(c.call(description, bearer), nullptr);
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << "one line, even when only one side of a propagation is wrong";
        EXPECT_EQ(lines[0].level, 3);
        EXPECT_EQ(lines[0].function, c.function);
        EXPECT_EQ(lines[0].path, "") << "these lines carry an empty source path";
        if (c.line != 0) EXPECT_EQ(lines[0].line, c.line);
        EXPECT_EQ(lines[0].message, c.message);
    }
    // Nothing reached the bearer: its one attachment is untouched.
    SVAttachmentMode mode = 99;
    EXPECT_EQ(SVGetAttachment(bearer, CFSTR("k"), &mode), kCFBooleanFalse);
    EXPECT_EQ(mode, kSVAttachmentMode_ShouldPropagate);
    CFRelease(bearer);
    CFRelease(description);
}

TEST(SVAttachmentRefusalTest, NullAndOtherObjectsAreRefusedToo) {
    SVSampleBufferRef bearer = makeSampleBuffer();
    SVBlockBufferRef blockBuffer = nullptr;
    ASSERT_EQ(SVBlockBufferCreateEmpty(nullptr, 0, 0, &blockBuffer), 0);
    for (CFTypeRef target : {static_cast<CFTypeRef>(nullptr), static_cast<CFTypeRef>(CFSTR("string")),
                             static_cast<CFTypeRef>(blockBuffer)}) {
        for (const RefusalCase &c : refusals()) {
            LogCapture log;
            EXPECT_EQ(c.call(target, bearer), nullptr);
            ASSERT_EQ(log.count(), 1u) << c.function;
            if (c.line != 0) EXPECT_EQ(log.lines()[0].line, c.line);
        }
    }
    CFRelease(blockBuffer);
    CFRelease(bearer);
}

// ---- the accepted kinds ------------------------------------------------------------

class SVAttachmentBearerTest : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        std::string kind = GetParam();
        if (kind == "SampleBuffer") target = makeSampleBuffer();
        if (kind == "PixelBuffer") target = makePixelBuffer();
        if (kind == "Texture") target = makeTexture();
        ASSERT_NE(target, nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(log.count(), 0u) << "accepted targets log nothing";
        CFRelease(target);
    }
    LogCapture log;
    CFTypeRef target = nullptr;
};

TEST_P(SVAttachmentBearerTest, SetGetRemoveWithModes) {
    CFNumberRef value = nullptr;
    int seven = 7;
    value = CFNumberCreate(nullptr, kCFNumberIntType, &seven);
    SVSetAttachment(target, CFSTR("p"), value, kSVAttachmentMode_ShouldPropagate);
    SVSetAttachment(target, CFSTR("n"), kCFBooleanTrue, kSVAttachmentMode_ShouldNotPropagate);
    EXPECT_EQ(CFGetRetainCount(value), 2) << "the target retains the value";
    SVAttachmentMode mode = 99;
    EXPECT_EQ(SVGetAttachment(target, CFSTR("p"), &mode), value);
    EXPECT_EQ(mode, kSVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(SVGetAttachment(target, CFSTR("n"), &mode), kCFBooleanTrue);
    EXPECT_EQ(mode, kSVAttachmentMode_ShouldNotPropagate);
    EXPECT_EQ(SVGetAttachment(target, CFSTR("absent"), &mode), nullptr);

    SVRemoveAttachment(target, CFSTR("p"));
    EXPECT_EQ(SVGetAttachment(target, CFSTR("p"), nullptr), nullptr);
    EXPECT_EQ(CFGetRetainCount(value), 1) << "removal releases the value";
    SVRemoveAllAttachments(target);
    EXPECT_EQ(SVGetAttachment(target, CFSTR("n"), nullptr), nullptr);

    CFDictionaryRef entries = dictionaryOf(CFSTR("many"), value);
    SVSetAttachments(target, entries, kSVAttachmentMode_ShouldNotPropagate);
    CFRelease(entries);
    EXPECT_EQ(SVGetAttachment(target, CFSTR("many"), &mode), value);
    EXPECT_EQ(mode, kSVAttachmentMode_ShouldNotPropagate);
    CFRelease(value);
}

TEST_P(SVAttachmentBearerTest, CopyIsNullWhenTheModeHasNoneAndUsesTheAllocator) {
    TestAllocator allocator;
    EXPECT_EQ(SVCopyDictionaryOfAttachments(allocator.get(), target, kSVAttachmentMode_ShouldPropagate), nullptr);
    SVSetAttachment(target, CFSTR("n"), kCFBooleanTrue, kSVAttachmentMode_ShouldNotPropagate);
    EXPECT_EQ(SVCopyDictionaryOfAttachments(allocator.get(), target, kSVAttachmentMode_ShouldPropagate), nullptr)
        << "NULL, not an empty dictionary";
    SVRemoveAttachment(target, CFSTR("n"));
    EXPECT_EQ(SVCopyDictionaryOfAttachments(allocator.get(), target, kSVAttachmentMode_ShouldNotPropagate), nullptr)
        << "a mode emptied by removal has none either";

    SVSetAttachment(target, CFSTR("p"), kCFBooleanTrue, kSVAttachmentMode_ShouldPropagate);
    CFDictionaryRef copy = SVCopyDictionaryOfAttachments(allocator.get(), target, kSVAttachmentMode_ShouldPropagate);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(CFGetAllocator(copy), allocator.get());
    EXPECT_EQ(CFDictionaryGetCount(copy), 1);
    SVSetAttachment(target, CFSTR("q"), kCFBooleanTrue, kSVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CFDictionaryGetCount(copy), 1) << "a copy, not the live dictionary";
    CFRelease(copy);
    EXPECT_EQ(allocator.outstanding(), 0);
}

TEST_P(SVAttachmentBearerTest, CopyAttachmentIsOwnedAndReportsTheMode) {
    CFNumberRef value = number(3);
    SVSetAttachment(target, CFSTR("k"), value, kSVAttachmentMode_ShouldPropagate);
    SVAttachmentMode mode = 99;
    CFTypeRef copy = SVCopyAttachment(target, CFSTR("k"), &mode);
    EXPECT_EQ(copy, value);
    EXPECT_EQ(mode, kSVAttachmentMode_ShouldPropagate);
    SVRemoveAttachment(target, CFSTR("k"));
    EXPECT_EQ(CFGetRetainCount(value), 2) << "the copy's reference outlives the removal";
    CFRelease(copy);
    mode = 99;
    EXPECT_EQ(SVCopyAttachment(target, CFSTR("k"), &mode), nullptr);
    EXPECT_EQ(mode, 99u) << "the mode is written only when found";
    CFRelease(value);
}

// Two threads: one reads with SVCopyAttachment (and SVCopyDictionaryOfAttachments)
// and uses what it got, the other replaces and removes the same key, so
// each replaced value dies as soon as the target drops it.  An owned read
// keeps it alive; a borrowed one retained afterwards would touch freed
// memory under the sanitizers, or read a number that is no longer one.
TEST_P(SVAttachmentBearerTest, CopiesSurviveWritersOnAnotherThread) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
    constexpr int kRounds = 4000;
#else
    constexpr int kRounds = 40000;
#endif
#else
    constexpr int kRounds = 40000;
#endif
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::thread writer([&] {
        for (int i = 0; i < kRounds; ++i) {
            CFNumberRef value = number(1000 + i % 1000);
            SVSetAttachment(target, CFSTR("hot"), value, i & 1);
            CFRelease(value);
            if (i % 3 == 0) SVRemoveAttachment(target, CFSTR("hot"));
            if (i % 13 == 0) SVRemoveAllAttachments(target);
        }
        done.store(true);
    });
    std::thread reader([&] {
        for (int i = 0; !done.load(); ++i) {
            CFTypeRef value = nullptr;
            CFDictionaryRef copy = nullptr;
            if (i & 1) {
                value = SVCopyAttachment(target, CFSTR("hot"), nullptr);
            } else if ((copy = SVCopyDictionaryOfAttachments(nullptr, target, (i >> 1) & 1)) != nullptr) {
                value = CFDictionaryGetValue(copy, CFSTR("hot"));
            }
            if (value != nullptr) {
                std::this_thread::yield();
                int n = 0;
                if (CFGetTypeID(value) != CFNumberGetTypeID() ||
                    !CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberIntType, &n) || n < 1000 || n >= 2000)
                    wrong++;
                if (copy == nullptr) CFRelease(value);
            }
            if (copy != nullptr) CFRelease(copy);
        }
    });
    writer.join();
    reader.join();
    EXPECT_EQ(wrong.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, SVAttachmentBearerTest, ::testing::Values("SampleBuffer", "PixelBuffer", "Texture"));

TEST(SVAttachmentPropagateTest, SampleBufferToPixelBufferCopiesOnlyPropagatingOnes) {
    SVSampleBufferRef source = makeSampleBuffer();
    CVPixelBufferRef destination = makePixelBuffer();
    CVOpenGLESTextureRef texture = makeTexture();
    SVSetAttachment(source, kSVSampleBufferAttachmentKey_DrainAfterDecoding, kCFBooleanTrue,
                    kSVAttachmentMode_ShouldPropagate);
    SVSetAttachment(source, kSVSampleBufferAttachmentKey_ResetDecoderBeforeDecoding, kCFBooleanTrue,
                    kSVAttachmentMode_ShouldNotPropagate);
    SVPropagateAttachments(source, destination);
    SVAttachmentMode mode = 99;
    EXPECT_EQ(SVGetAttachment(destination, kSVSampleBufferAttachmentKey_DrainAfterDecoding, &mode), kCFBooleanTrue);
    EXPECT_EQ(mode, kSVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(SVGetAttachment(destination, kSVSampleBufferAttachmentKey_ResetDecoderBeforeDecoding, nullptr), nullptr);
    // Onwards, from a pixel buffer to a texture.
    SVPropagateAttachments(destination, texture);
    EXPECT_EQ(SVGetAttachment(texture, kSVSampleBufferAttachmentKey_DrainAfterDecoding, nullptr), kCFBooleanTrue);
    CFRelease(texture);
    CFRelease(destination);
    CFRelease(source);
}

TEST(SVAttachmentModeTest, ModesAreCoreVideos) {
    static_assert(int{kSVAttachmentMode_ShouldNotPropagate} == int{kCVAttachmentMode_ShouldNotPropagate});
    static_assert(int{kSVAttachmentMode_ShouldPropagate} == int{kCVAttachmentMode_ShouldPropagate});
    SVSampleBufferRef sbuf = makeSampleBuffer();
    SVSetAttachment(sbuf, CFSTR("k"), kCFBooleanTrue, kSVAttachmentMode_ShouldPropagate);
    CVAttachmentMode mode = 99;
    EXPECT_EQ(CVBufferGetAttachment(static_cast<CVBufferRef>(const_cast<void *>(static_cast<const void *>(sbuf))),
                                    CFSTR("k"), &mode),
              kCFBooleanTrue)
        << "a sample buffer keeps its attachments in CoreVideo's storage";
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    CFRelease(sbuf);
}

// ---- key text --------------------------------------------------------------------------

#define NAMED(key) std::pair<CFStringRef, const char *>(key, #key)

TEST(SVAttachmentKeysTest, EveryKeysTextIsItsName) {
    const std::pair<CFStringRef, const char *> keys[] = {
        NAMED(kSVSampleAttachmentKey_NotSync),
        NAMED(kSVSampleAttachmentKey_PartialSync),
        NAMED(kSVSampleAttachmentKey_HasRedundantCoding),
        NAMED(kSVSampleAttachmentKey_IsDependedOnByOthers),
        NAMED(kSVSampleAttachmentKey_DependsOnOthers),
        NAMED(kSVSampleAttachmentKey_EarlierDisplayTimesAllowed),
        NAMED(kSVSampleAttachmentKey_DisplayImmediately),
        NAMED(kSVSampleAttachmentKey_DoNotDisplay),
        NAMED(kSVSampleBufferAttachmentKey_ResetDecoderBeforeDecoding),
        NAMED(kSVSampleBufferAttachmentKey_DrainAfterDecoding),
        NAMED(kSVSampleBufferAttachmentKey_PostNotificationWhenConsumed),
        NAMED(kSVSampleBufferAttachmentKey_ResumeOutput),
        NAMED(kSVSampleBufferAttachmentKey_TransitionID),
        NAMED(kSVSampleBufferAttachmentKey_TrimDurationAtStart),
        NAMED(kSVSampleBufferAttachmentKey_TrimDurationAtEnd),
        NAMED(kSVSampleBufferAttachmentKey_SpeedMultiplier),
        NAMED(kSVSampleBufferAttachmentKey_Reverse),
        NAMED(kSVSampleBufferAttachmentKey_FillDiscontinuitiesWithSilence),
        NAMED(kSVSampleBufferAttachmentKey_EmptyMedia),
        NAMED(kSVSampleBufferAttachmentKey_PermanentEmptyMedia),
        NAMED(kSVSampleBufferAttachmentKey_DisplayEmptyMediaImmediately),
        NAMED(kSVSampleBufferAttachmentKey_EndsPreviousSampleDuration),
        NAMED(kSVSampleBufferAttachmentKey_SampleReferenceURL),
        NAMED(kSVSampleBufferAttachmentKey_SampleReferenceByteOffset),
        NAMED(kSVSampleBufferAttachmentKey_GradualDecoderRefresh),
        NAMED(kSVSampleBufferAttachmentKey_DroppedFrameReason),
        NAMED(kSVSampleBufferAttachmentKey_DroppedFrameReasonInfo),
        NAMED(kSVSampleBufferAttachmentKey_ForceKeyFrame),
        NAMED(kSVSampleBufferAttachmentKey_StillImageLensStabilizationInfo),
        NAMED(kSVSampleBufferDroppedFrameReason_FrameWasLate),
        NAMED(kSVSampleBufferDroppedFrameReason_OutOfBuffers),
        NAMED(kSVSampleBufferDroppedFrameReason_Discontinuity),
        NAMED(kSVSampleBufferDroppedFrameReasonInfo_CameraModeSwitch),
        NAMED(kSVSampleBufferLensStabilizationInfo_Active),
        NAMED(kSVSampleBufferLensStabilizationInfo_Off),
        NAMED(kSVSampleBufferNotification_DataBecameReady),
        NAMED(kSVSampleBufferNotification_DataFailed),
        NAMED(kSVSampleBufferNotificationParameter_OSStatus),
        NAMED(kSVSampleBufferConduitNotification_InhibitOutputUntil),
        NAMED(kSVSampleBufferConduitNotification_ResetOutput),
        NAMED(kSVSampleBufferConduitNotification_UpcomingOutputPTSRangeChanged),
        NAMED(kSVSampleBufferConsumerNotification_BufferConsumed),
        NAMED(kSVSampleBufferConduitNotificationParameter_ResumeTag),
        NAMED(kSVSampleBufferConduitNotificationParameter_UpcomingOutputPTSRangeMayOverlapQueuedOutputPTSRange),
        NAMED(kSVSampleBufferConduitNotificationParameter_MinUpcomingOutputPTS),
        NAMED(kSVSampleBufferConduitNotificationParameter_MaxUpcomingOutputPTS),
    };
    for (const auto &[key, name] : keys) {
        char text[160];
        ASSERT_TRUE(CFStringGetCString(key, text, sizeof(text), kCFStringEncodingUTF8)) << name;
        EXPECT_STREQ(text, name);
    }
}

}  // namespace
