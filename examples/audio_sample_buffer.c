/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Audio in sample buffers, as a demuxer and a decoder see it.
 *
 * Compressed audio (AAC here) comes as packets of different sizes: the
 * demuxer wraps a few of them, with one packet description each, in one
 * audio sample buffer whose timing Sorvel derives from the format (1024
 * frames per AAC packet).  The encoder's priming frames are cut with a
 * start trim, which moves the output time.  A decoder that wants one packet
 * at a time splits the buffer with SVSampleBufferCallForEachSample.
 *
 * Decoded audio (interleaved 16-bit PCM) goes the other way: wrapped in an
 * audio sample buffer, and read back out through an AudioBufferList, whole
 * or a range of frames.  The program checks every result and exits 0 only
 * when all are as expected.
 */
#include <Sorvel/Sorvel.h>
#include <stdio.h>
#include <string.h>

enum { kSampleRate = 44100, kPackets = 3, kPrimingFrames = 1024, kPCMFrames = 256, kChannels = 2 };

static int failures = 0;

/* Reports a failed call with its status's name. */
static int check(OSStatus status, const char *what) {
    if (status == 0) return 1;
    fprintf(stderr, "%s failed: %s (%d)\n", what, SVGetStatusName(status), (int)status);
    ++failures;
    return 0;
}

static void expect(int condition, const char *what) {
    if (condition) return;
    fprintf(stderr, "unexpected: %s\n", what);
    ++failures;
}

static int sameTime(SVTime time, int64_t value, int32_t timescale) {
    return (time.flags & kSVTimeFlags_Valid) && SVTimeCompare(time, SVTimeMake(value, timescale)) == 0;
}

/* A block buffer that owns a copy of `length` bytes. */
static SVBlockBufferRef copyIntoBlockBuffer(const void *bytes, size_t length) {
    SVBlockBufferRef block = NULL;
    if (!check(SVBlockBufferCreateWithMemoryBlock(NULL, NULL, length, NULL, NULL, 0, length,
                                                  kSVBlockBufferAssureMemoryNowFlag, &block),
               "SVBlockBufferCreateWithMemoryBlock"))
        return NULL;
    if (!check(SVBlockBufferReplaceDataBytes(bytes, block, 0, length), "SVBlockBufferReplaceDataBytes")) {
        CFRelease(block);
        return NULL;
    }
    return block;
}

/* The packet sizes the demuxer read; the callback checks each packet. */
static const uint32_t kPacketSizes[kPackets] = {7, 12, 5};

static OSStatus onePacket(SVSampleBufferRef packet, SVItemCount index, void *refcon) {
    int *seen = (int *)refcon;
    const AudioStreamPacketDescription *description = NULL;
    size_t descriptionsSize = 0;
    OSStatus status = SVSampleBufferGetAudioStreamPacketDescriptionsPtr(packet, &description, &descriptionsSize);
    if (status != 0) return status;
    SVTime pts = SVSampleBufferGetPresentationTimeStamp(packet);
    printf("  packet %ld: %u bytes at offset %lld, pts %lld/%d\n", (long)index, (unsigned)description->mDataByteSize,
           (long long)description->mStartOffset, (long long)pts.value, (int)pts.timescale);
    /* Each packet is its own buffer: its description is rebased to its own
     * data, and its time is the frames before it. */
    expect(SVSampleBufferGetNumSamples(packet) == 1 && descriptionsSize == sizeof *description,
           "one packet, one description");
    expect(description->mStartOffset == 0 && description->mDataByteSize == kPacketSizes[index] &&
               SVSampleBufferGetTotalSampleSize(packet) == kPacketSizes[index],
           "the packet's bytes");
    expect(sameTime(pts, (int64_t)index * 1024, kSampleRate), "the packet's time");
    ++*seen;
    return 0;
}

static void compressedPackets(void) {
    printf("AAC:\n");
    const AudioStreamBasicDescription aac = {kSampleRate, kAudioFormatMPEG4AAC, 0, 0, 1024, 0, kChannels, 0, 0};
    SVFormatDescriptionRef format = NULL;
    if (!check(SVAudioFormatDescriptionCreate(NULL, &aac, 0, NULL, 0, NULL, NULL, &format),
               "SVAudioFormatDescriptionCreate"))
        return;
    /* The packets as read, end to end, and where each one lies. */
    uint8_t bytes[7 + 12 + 5];
    for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = (uint8_t)(0xA0 + i);
    AudioStreamPacketDescription descriptions[kPackets];
    int64_t offset = 0;
    for (int i = 0; i < kPackets; ++i) {
        descriptions[i].mStartOffset = offset;
        descriptions[i].mVariableFramesInPacket = 0; /* AAC has a fixed 1024 */
        descriptions[i].mDataByteSize = kPacketSizes[i];
        offset += kPacketSizes[i];
    }
    SVBlockBufferRef data = copyIntoBlockBuffer(bytes, sizeof bytes);
    SVSampleBufferRef packets = NULL;
    if (data != NULL && check(SVAudioSampleBufferCreateReadyWithPacketDescriptions(
                                  NULL, data, format, kPackets, SVTimeMake(0, kSampleRate), descriptions, &packets),
                              "SVAudioSampleBufferCreateReadyWithPacketDescriptions")) {
        /* The encoder put 1024 silent priming frames in front: trimmed, the
         * first frame played is frame 1024, and 2048 of 3072 frames play. */
        CFDictionaryRef trim = SVTimeCopyAsDictionary(SVTimeMake(kPrimingFrames, kSampleRate), NULL);
        SVSetAttachment(packets, kSVSampleBufferAttachmentKey_TrimDurationAtStart, trim,
                        kSVAttachmentMode_ShouldPropagate);
        CFRelease(trim);
        SVTime pts = SVSampleBufferGetPresentationTimeStamp(packets);
        SVTime outputPts = SVSampleBufferGetOutputPresentationTimeStamp(packets);
        /* Output times are exact; shown in the sample rate's timescale. */
        SVTime outputDuration =
            SVTimeConvertScale(SVSampleBufferGetOutputDuration(packets), kSampleRate, kSVTimeRoundingMethod_Default);
        printf("  %ld packets, pts %lld/%d, output pts %lld/%d, output duration %lld/%d (%.4f s)\n",
               (long)SVSampleBufferGetNumSamples(packets), (long long)pts.value, (int)pts.timescale,
               (long long)outputPts.value, (int)outputPts.timescale, (long long)outputDuration.value,
               (int)outputDuration.timescale, SVTimeGetSeconds(outputDuration));
        expect(sameTime(SVSampleBufferGetDuration(packets), kPackets * 1024, kSampleRate), "3072 frames stored");
        expect(sameTime(outputPts, kPrimingFrames, kSampleRate), "output starts after the priming frames");
        expect(sameTime(outputDuration, kPackets * 1024 - kPrimingFrames, kSampleRate), "2048 frames play");

        int seen = 0;
        check(SVSampleBufferCallForEachSample(packets, onePacket, &seen), "SVSampleBufferCallForEachSample");
        expect(seen == kPackets, "every packet visited");
        CFRelease(packets);
    }
    if (data != NULL) CFRelease(data); /* the sample buffer kept its own reference */
    CFRelease(format);
}

static void pcm(void) {
    printf("PCM:\n");
    /* 16-bit signed stereo, interleaved: 4 bytes per frame, one frame per packet. */
    const AudioStreamBasicDescription format16 = {kSampleRate,
                                                  kAudioFormatLinearPCM,
                                                  kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked,
                                                  4,
                                                  1,
                                                  4,
                                                  kChannels,
                                                  16,
                                                  0};
    SVFormatDescriptionRef format = NULL;
    if (!check(SVAudioFormatDescriptionCreate(NULL, &format16, 0, NULL, 0, NULL, NULL, &format),
               "SVAudioFormatDescriptionCreate"))
        return;
    int16_t frames[kPCMFrames * kChannels];
    for (int i = 0; i < kPCMFrames; ++i) {
        frames[2 * i] = (int16_t)(i * 100);      /* left */
        frames[2 * i + 1] = (int16_t)(-i * 100); /* right */
    }
    SVBlockBufferRef data = copyIntoBlockBuffer(frames, sizeof frames);
    SVSampleBufferRef sbuf = NULL;
    /* Linear PCM takes no packet descriptions: every packet is one frame. */
    if (data != NULL && check(SVAudioSampleBufferCreateReadyWithPacketDescriptions(
                                  NULL, data, format, kPCMFrames, SVTimeMake(4096, kSampleRate), NULL, &sbuf),
                              "SVAudioSampleBufferCreateReadyWithPacketDescriptions")) {
        SVTime duration =
            SVTimeConvertScale(SVSampleBufferGetOutputDuration(sbuf), kSampleRate, kSVTimeRoundingMethod_Default);
        printf("  %ld frames, duration %lld/%d\n", (long)SVSampleBufferGetNumSamples(sbuf), (long long)duration.value,
               (int)duration.timescale);
        expect(sameTime(duration, kPCMFrames, kSampleRate), "256 frames of duration");

        /* The whole buffer as a list: one buffer of both channels, pointing
         * at the data in place or at a copy that `retained` keeps alive. */
        AudioBufferList list;
        size_t listSize = 0;
        SVBlockBufferRef retained = NULL;
        if (check(SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer(sbuf, &listSize, &list, sizeof list, NULL,
                                                                          NULL, 0, &retained),
                  "SVSampleBufferGetAudioBufferListWithRetainedBlockBuffer")) {
            printf("  buffer list: %u buffer, %u channels, %u bytes\n", (unsigned)list.mNumberBuffers,
                   (unsigned)list.mBuffers[0].mNumberChannels, (unsigned)list.mBuffers[0].mDataByteSize);
            expect(list.mNumberBuffers == 1 && list.mBuffers[0].mNumberChannels == kChannels &&
                       list.mBuffers[0].mDataByteSize == sizeof frames &&
                       memcmp(list.mBuffers[0].mData, frames, sizeof frames) == 0,
                   "the list holds the frames");
            CFRelease(retained);
        }

        /* Ten frames from frame 100, copied into our own memory. */
        int16_t some[10 * kChannels];
        AudioBufferList mine;
        mine.mNumberBuffers = 1;
        mine.mBuffers[0].mNumberChannels = kChannels;
        mine.mBuffers[0].mDataByteSize = sizeof some;
        mine.mBuffers[0].mData = some;
        if (check(SVSampleBufferCopyPCMDataIntoAudioBufferList(sbuf, 100, 10, &mine),
                  "SVSampleBufferCopyPCMDataIntoAudioBufferList")) {
            printf("  frames 100-109: left %d..%d, right %d..%d\n", some[0], some[18], some[1], some[19]);
            expect(mine.mBuffers[0].mDataByteSize == sizeof some && memcmp(some, frames + 200, sizeof some) == 0,
                   "frames 100 to 109");
        }
        /* Past the end is refused, with nothing written (and a line on
         * standard error saying why). */
        expect(SVSampleBufferCopyPCMDataIntoAudioBufferList(sbuf, kPCMFrames - 5, 10, &mine) ==
                   kSVSampleBufferError_SampleIndexOutOfRange,
               "frames past the end refused");
        CFRelease(sbuf);
    }
    if (data != NULL) CFRelease(data);
    CFRelease(format);
}

int main(void) {
    compressedPackets();
    pcm();
    if (failures != 0) fprintf(stderr, "%d check(s) failed\n", failures);
    return failures == 0 ? 0 : 1;
}
