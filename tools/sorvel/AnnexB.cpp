// SPDX-License-Identifier: Apache-2.0
// `sorvel annexb`: the video stream as an Annex B elementary stream.
//
// Every sample goes through _SVSampleBufferOutputVideoSampleAsBytes.  The
// parameter sets of the description are written where a decoder starting at
// that sample needs them: for H.264 before the first IDR slice of a sync
// sample that brings no SPS of its own, for HEVC before the first IRAP
// picture of every sample.  Samples read from Annex B sources already carry
// their parameter sets and are written as they are.
#include <Sorvel/SVNALUnit.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ChunkWriter.h"
#include "Commands.h"
#include "MediaSource.h"
#include "OutputFile.h"

namespace sorvel::tool {
namespace {

// Where the parameter sets go: the byte offset of the first unit that needs
// them, or -1 when the sample is written without them.
long insertionPoint(const uint8_t *data, size_t size, FourCharCode codec, int headerLength, bool sync) {
    __block long point = -1;
    __block bool sawSPS = false;
    _SVEnumerateNALUnits(data, size, headerLength, ^int(const uint8_t *unit, size_t length) {
      if (point >= 0 || length <= static_cast<size_t>(headerLength)) return 0;
      const unsigned type = nalUnitType(codec, unit[headerLength]);
      if (codec == kSVVideoCodecType_H264) {
          if (type == kH264NAL_SPS) sawSPS = true;
          if (type == kH264NAL_IDRSlice && sync && !sawSPS) point = unit - data;
      } else if (type >= kHEVCNAL_FirstIRAP && type <= kHEVCNAL_LastIRAP) {
          point = unit - data;
      }
      return 0;
    });
    return point;
}

// One piece of a sample as its own sample buffer: the same description,
// marked not-sync unless it is the part that starts with the sync picture.
Ref<SVSampleBufferRef> piece(SVSampleBufferRef sample, size_t offset, size_t length, bool sync) {
    Ref<SVBlockBufferRef> block;
    Ref<SVSampleBufferRef> buffer;
    if (SVBlockBufferCreateWithBufferReference(nullptr, SVSampleBufferGetDataBuffer(sample), offset, length, 0,
                                               block.out()) != 0)
        return buffer;
    if (SVSampleBufferCreateReady(nullptr, block.get(), SVSampleBufferGetFormatDescription(sample), 1, 0, nullptr, 1,
                                  &length, buffer.out()) != 0)
        return Ref<SVSampleBufferRef>();
    if (!sync) {
        CFArrayRef attachments = SVSampleBufferGetSampleAttachmentsArray(buffer.get(), true);
        if (attachments && CFArrayGetCount(attachments) > 0)
            CFDictionarySetValue((CFMutableDictionaryRef)CFArrayGetValueAtIndex(attachments, 0),
                                 kSVSampleAttachmentKey_NotSync, kCFBooleanTrue);
    }
    return buffer;
}

// Converts straight into the writer's chunk: the only copies of the bytes
// are the conversion's and write(2)'s.
OSStatus writeSample(SVSampleBufferRef sample, int32_t extraDataMode, ChunkWriter &writer, uint64_t &bytes) {
    ChunkWriter *out = &writer;
    uint64_t *total = &bytes;
    return _SVSampleBufferOutputVideoSampleAsBytes(sample, extraDataMode, ^void *(size_t size) {
      *total += size;
      return out->reserve(size);
    });
}

}  // namespace

int runAnnexB(const AnnexBOptions &options) {
    ToolError error;
    // With one name the built-in stream is written to it: a file of that
    // name is far more likely an input given without an output.
    if (options.input.empty() && options.output != "-" && !options.overwrite &&
        access(options.output.c_str(), F_OK) == 0)
        return reportError({kExitUsage, format("%s exists; to convert it, name an output too (sorvel annexb %s OUT); "
                                               "-y writes the built-in stream over it",
                                               options.output.c_str(), options.output.c_str())});
    OutputFile output;
    if (!output.open(options.output, options.input, options.overwrite, error)) return reportError(error);
    // The conversion reads the samples only: no stream analysis.
    std::unique_ptr<MediaSource> source = MediaSource::open(options.input, error, true, false);
    if (!source) return reportError(error);
    const bool toStdout = output.isStandardOutput();
    // Written by a second thread while this one reads and converts; nothing
    // has gone through the stream's buffer yet, so its descriptor is used
    // directly.
    FILE *out = output.stream();
    if (fflush(out) != 0) return reportError({kExitFailure, format("%s: %s", options.output.c_str(), strerror(errno))});
    // The stream in Annex B takes about the bytes its samples took in the
    // file, which is at most the file's size.
    if (struct stat input; !options.input.empty() && stat(options.input.c_str(), &input) == 0)
        output.preallocate(input.st_size);
    ChunkWriter writer(fileno(out));
    if (!writer.valid()) return reportError({kExitFailure, "cannot start the output thread"});

    const FourCharCode codec = source->codec();
    const int headerLength = source->nalUnitHeaderLength();
    int64_t samples = 0, insertions = 0;
    uint64_t bytes = 0;
    VideoSample sample;
    int result = kExitOK;
    while (source->next(sample)) {
        SVSampleBufferRef buffer = sample.buffer.get();
        const uint8_t *data = nullptr;
        size_t size = 0;
        long point = -1;
        if (source->lengthPrefixedSource() && sampleBytes(buffer, data, size))
            point = insertionPoint(data, size, codec, headerLength, sample.sync);
        OSStatus status = 0;
        if (point < 0) {
            status = writeSample(buffer, 0, writer, bytes);
        } else {
            ++insertions;
            if (point > 0) {
                Ref<SVSampleBufferRef> head = piece(buffer, 0, static_cast<size_t>(point), false);
                status = head ? writeSample(head.get(), 0, writer, bytes) : kSVFormatDescriptionError_AllocationFailed;
            }
            Ref<SVSampleBufferRef> rest =
                piece(buffer, static_cast<size_t>(point), size - static_cast<size_t>(point), true);
            if (status == 0)
                status = rest ? writeSample(rest.get(), 1, writer, bytes) : kSVFormatDescriptionError_AllocationFailed;
        }
        if (status != 0) {
            result =
                reportError({kExitFailure, format("sample %lld could not be converted (status %d)",
                                                  static_cast<long long>(sample.index), static_cast<int>(status))});
            break;
        }
        if (writer.failed()) break;
        ++samples;
    }
    const int why = writer.finish();
    if (result != kExitOK) return result;
    if (why != 0) return reportError({kExitFailure, format("%s: %s", options.output.c_str(), strerror(why))});
    // A damaged input still gives the samples before the damage.
    if (!output.commit(error)) return reportError(error);
    for (const std::string &warning : source->warnings()) fprintf(stderr, "sorvel: warning: %s\n", warning.c_str());
    fprintf(toStdout ? stderr : stdout,
            "Wrote %lld samples, %llu bytes of %s Annex B to %s (parameter sets inserted %lld times)\n",
            static_cast<long long>(samples), static_cast<unsigned long long>(bytes),
            codec == kSVVideoCodecType_H264 ? "H.264" : "HEVC", toStdout ? "standard output" : options.output.c_str(),
            static_cast<long long>(insertions));
    if (source->problem()) return reportError(*source->problem());
    return kExitOK;
}

}  // namespace sorvel::tool
