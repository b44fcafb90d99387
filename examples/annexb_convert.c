/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Annex B conversion: the length-prefixed H.264 of an MP4 sample rewritten
 * with start codes, as decoders and raw .h264 files want it, with the
 * parameter sets in front of the sync sample.  Uses only function-pointer
 * calls, so it builds with any C compiler.
 */
#include <Sorvel/SVBlockBuffer.h>
#include <Sorvel/SVFormatDescription.h>
#include <Sorvel/SVNALUnit.h>
#include <Sorvel/SVSampleBuffer.h>
#include <Sorvel/SVStatus.h>
#include <stdio.h>
#include <stdlib.h>

/* An avcC record (baseline, 176x144, 4-byte lengths: one SPS, one PPS). */
static const uint8_t kRecord[] = {0x01, 0x42, 0xc0, 0x0b, 0xff, 0xe1, 0x00, 0x16, 0x67, 0x42, 0xc0, 0x0b, 0xd9,
                                  0x02, 0xc4, 0xec, 0x04, 0x40, 0x00, 0x00, 0x03, 0x00, 0x40, 0x00, 0x00, 0x0c,
                                  0x83, 0xc5, 0x0a, 0x92, 0x01, 0x00, 0x04, 0x68, 0xcb, 0x8c, 0xb2};

/* A sample of two units with 4-byte lengths: an SEI and the start of an IDR
 * slice (the bytes stand in for a real picture; nothing here decodes it). */
static uint8_t kSample[] = {0, 0, 0, 3, 0x06, 0x05, 0x80, 0, 0, 0, 5, 0x65, 0x88, 0x84, 0x00, 0x33};

/* Where the writer's packet goes: memory we allocate and later free. */
typedef struct {
    uint8_t *bytes;
    size_t size;
} Packet;

static void *allocate(size_t size, void *refcon) {
    Packet *packet = (Packet *)refcon;
    packet->bytes = (uint8_t *)malloc(size);
    packet->size = packet->bytes ? size : 0;
    return packet->bytes;
}

static void printUnit(const uint8_t *unit, size_t length, void *refcon) {
    int *count = (int *)refcon;
    printf("  unit %d: type %d, %zu bytes\n", (*count)++, unit[0] & 0x1F, length);
}

static int fail(OSStatus status) {
    CFStringRef text = SVCopyStatusDescription(NULL, status);
    char buffer[128] = "?";
    if (text) {
        CFStringGetCString(text, buffer, sizeof buffer, kCFStringEncodingUTF8);
        CFRelease(text);
    }
    fprintf(stderr, "failed: %s\n", buffer);
    return 1;
}

int main(void) {
    /* The description from the record, and a sample buffer over our bytes
     * (kCFAllocatorNull: the block buffer borrows them and frees nothing). */
    SVFormatDescriptionRef format = NULL;
    OSStatus status =
        SVVideoFormatDescriptionCreateFromAVCDecoderConfigurationRecord(NULL, kRecord, sizeof kRecord, &format);
    if (status != 0) return fail(status);
    SVBlockBufferRef block = NULL;
    status = SVBlockBufferCreateWithMemoryBlock(NULL, kSample, sizeof kSample, kCFAllocatorNull, NULL, 0,
                                                sizeof kSample, 0, &block);
    if (status != 0) {
        CFRelease(format);
        return fail(status);
    }
    const size_t sampleSize = sizeof kSample;
    SVSampleBufferRef sample = NULL;
    status = SVSampleBufferCreate(NULL, block, true, NULL, NULL, format, 1, 0, NULL, 1, &sampleSize, &sample);
    CFRelease(block);
    CFRelease(format);
    if (status != 0) return fail(status);

    /* A sync sample (no NotSync attachment), so SPS and PPS come first.  The
     * writer asks `allocate` once, for the exact size; the memory is ours. */
    Packet packet = {NULL, 0};
    status = SVSampleBufferWriteAnnexB(sample, true, NULL, 0, allocate, &packet);
    CFRelease(sample);
    if (status != 0) return fail(status);

    printf("%zu bytes of Annex B:\n", packet.size);
    int count = 0;
    const size_t units = SVNALUnitEnumerateAnnexBFlexible(packet.bytes, packet.size, printUnit, &count);
    free(packet.bytes);
    /* SPS, PPS, SEI, IDR. */
    return units == 4 ? 0 : 1;
}
