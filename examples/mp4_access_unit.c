/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Wrap an access unit from an MP4 in a sample buffer and read its times.
 *
 * A demuxer (libavformat, GStreamer's qtdemux, your own) gives you three
 * things per H.264 track: the avcC record from the sample entry, each
 * sample's bytes (length-prefixed NAL units) and its timing.  This program
 * digs those out of a small MP4 with a naive box search, just enough for the
 * shipped clip, and hands them to Sorvel:
 *
 *   record  -> SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord
 *   bytes   -> SVBlockBufferCreateWithMemoryBlock
 *   timing  -> SVSampleBufferCreate, then SVSampleBufferGetOutputPresentationTimeStamp
 *
 * usage: mp4_access_unit FILE.mp4
 */
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVSampleBuffer.h>
#include <Sorvel/SVStatus.h>
#include <Sorvel/SVTime.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static uint32_t be32(const uint8_t *p) {
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

/* The payload of the first box of type `type` (searched for as bytes, not
 * walked: fine for this clip, not for arbitrary files). */
static const uint8_t *findBox(const uint8_t *data, size_t size, const char *type, size_t *payloadSize) {
    for (size_t i = 4; i + 4 <= size; ++i) {
        if (memcmp(data + i, type, 4) != 0) continue;
        const uint32_t boxSize = be32(data + i - 4);
        if (boxSize < 8 || i - 4 + boxSize > size) continue;
        *payloadSize = boxSize - 8;
        return data + i + 4;
    }
    return NULL;
}

/* Prints what a failed call returned, by name. */
static int fail(const char *call, OSStatus status) {
    CFStringRef description = SVCopyStatusDescription(NULL, status);
    char text[128] = "?";
    if (description) {
        CFStringGetCString(description, text, sizeof text, kCFStringEncodingUTF8);
        CFRelease(description);
    }
    fprintf(stderr, "%s failed: %s\n", call, text);
    return 1;
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE.mp4\n", argv[0]);
        return 2;
    }
    FILE *file = fopen(argv[1], "rb");
    if (!file) {
        perror(argv[1]);
        return 1;
    }
    static uint8_t mp4[1 << 20];
    const size_t size = fread(mp4, 1, sizeof mp4, file);
    fclose(file);

    size_t avcCSize = 0, mdhdSize = 0, sttsSize = 0, stszSize = 0, stcoSize = 0;
    const uint8_t *avcC = findBox(mp4, size, "avcC", &avcCSize);
    const uint8_t *mdhd = findBox(mp4, size, "mdhd", &mdhdSize);
    const uint8_t *stts = findBox(mp4, size, "stts", &sttsSize);
    const uint8_t *stsz = findBox(mp4, size, "stsz", &stszSize);
    const uint8_t *stco = findBox(mp4, size, "stco", &stcoSize);
    if (!avcC || !mdhd || mdhdSize < 16 || mdhd[0] != 0 || !stts || sttsSize < 16 || !stsz || stszSize < 16 || !stco ||
        stcoSize < 12) {
        fprintf(stderr, "%s: not an MP4 this example can read\n", argv[1]);
        return 1;
    }
    const int32_t timescale = (int32_t)be32(mdhd + 12); /* version 0: after flags and two times */
    const int64_t duration = be32(stts + 12);           /* the first entry's sample delta */
    const size_t sampleSize = be32(stsz + 12);          /* first entry (sample_size 0 = table follows) */
    const size_t sampleOffset = be32(stco + 8);         /* first chunk: the first sample starts it */
    if (sampleOffset + sampleSize > size) {
        fprintf(stderr, "%s: first sample lies outside the file\n", argv[1]);
        return 1;
    }

    /* 1. The format description, straight from the record. */
    SVFormatDescriptionRef format = NULL;
    OSStatus status = SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord(NULL, avcC, avcCSize, &format);
    if (status != 0) return fail("SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord", status);
    const SVVideoDimensions dims = SVVideoFormatDescriptionGetDimensions(format);

    /* 2. A block buffer that copies the sample's bytes into memory it owns
     *    (NULL memory block + kSVBlockBufferAssureMemoryNowFlag allocates). */
    SVBlockBufferRef block = NULL;
    status = SVBlockBufferCreateWithMemoryBlock(NULL, NULL, sampleSize, NULL, NULL, 0, sampleSize,
                                                kSVBlockBufferAssureMemoryNowFlag, &block);
    if (status != 0) return fail("SVBlockBufferCreateWithMemoryBlock", status);
    status = SVBlockBufferReplaceDataBytes(mp4 + sampleOffset, block, 0, sampleSize);
    if (status != 0) return fail("SVBlockBufferReplaceDataBytes", status);

    /* 3. One sample: its bytes, its description and its timing.  The
     *    sample buffer retains both; ours can go at once. */
    const SVSampleTimingInfo timing = {SVTimeMake(duration, timescale), SVTimeMake(0, timescale),
                                       SVTimeMake(0, timescale)};
    SVSampleBufferRef sample = NULL;
    status = SVSampleBufferCreate(NULL, block, true, NULL, NULL, format, 1, 1, &timing, 1, &sampleSize, &sample);
    CFRelease(block);
    CFRelease(format);
    if (status != 0) return fail("SVSampleBufferCreate", status);

    /* 4. Output times: presentation time and duration after the trim and
     *    reverse attachments a player may set. */
    const SVTime pts = SVSampleBufferGetOutputPresentationTimeStamp(sample);
    const SVTime outDuration = SVSampleBufferGetOutputDuration(sample);
    printf("%dx%d, %zu bytes, output pts %lld/%d (%.3f s), duration %lld/%d (%.3f s)\n", (int)dims.width,
           (int)dims.height, SVSampleBufferGetTotalSampleSize(sample), (long long)pts.value, (int)pts.timescale,
           SVTimeGetSeconds(pts), (long long)outDuration.value, (int)outDuration.timescale,
           SVTimeGetSeconds(outDuration));
    CFRelease(sample);
    return 0;
}
