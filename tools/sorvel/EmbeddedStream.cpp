// SPDX-License-Identifier: Apache-2.0
// The demo stream that every subcommand reads when no file is named: three
// seconds of 320x180 H.264 High with B-frames and stereo AAC, in MP4.  It is
// assembled into the program's read-only data so the tool needs no files.
#include "EmbeddedStream.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

__asm__(
    ".section .rodata\n"
    ".balign 16\n"
    ".globl sorvel_embedded_stream_begin\n"
    "sorvel_embedded_stream_begin:\n"
    ".incbin \"" SORVEL_EMBEDDED_STREAM
    "\"\n"
    ".globl sorvel_embedded_stream_end\n"
    "sorvel_embedded_stream_end:\n"
    ".previous\n");

extern "C" const uint8_t sorvel_embedded_stream_begin[];
extern "C" const uint8_t sorvel_embedded_stream_end[];

namespace sorvel::tool {
namespace {

struct MemoryInput {
    const uint8_t *data;
    size_t size;
    size_t position;
};

int readMemory(void *opaque, uint8_t *buffer, int size) {
    auto *input = static_cast<MemoryInput *>(opaque);
    const size_t left = input->size - input->position;
    if (left == 0) return AVERROR_EOF;
    const size_t count = std::min(left, static_cast<size_t>(size));
    memcpy(buffer, input->data + input->position, count);
    input->position += count;
    return static_cast<int>(count);
}

int64_t seekMemory(void *opaque, int64_t offset, int whence) {
    auto *input = static_cast<MemoryInput *>(opaque);
    int64_t base = 0;
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return static_cast<int64_t>(input->size);
        case SEEK_SET:
            base = 0;
            break;
        case SEEK_CUR:
            base = static_cast<int64_t>(input->position);
            break;
        case SEEK_END:
            base = static_cast<int64_t>(input->size);
            break;
        default:
            return AVERROR(EINVAL);
    }
    const int64_t target = base + offset;
    if (target < 0 || target > static_cast<int64_t>(input->size)) return AVERROR(EINVAL);
    input->position = static_cast<size_t>(target);
    return target;
}

}  // namespace

const uint8_t *embeddedStream(size_t &size) {
    size = static_cast<size_t>(sorvel_embedded_stream_end - sorvel_embedded_stream_begin);
    return sorvel_embedded_stream_begin;
}

}  // namespace sorvel::tool

namespace sorvel::tool {

AVIOContext *openEmbeddedStreamIO() {
    constexpr int kBufferSize = 16384;
    auto *input = new (std::nothrow) MemoryInput{nullptr, 0, 0};
    auto *buffer = static_cast<unsigned char *>(av_malloc(kBufferSize));
    AVIOContext *io =
        input && buffer ? avio_alloc_context(buffer, kBufferSize, 0, input, readMemory, nullptr, seekMemory) : nullptr;
    if (!io) {
        delete input;
        av_free(buffer);
        return nullptr;
    }
    input->data = embeddedStream(input->size);
    return io;
}

void closeEmbeddedStreamIO(AVIOContext *&io) {
    if (!io) return;
    delete static_cast<MemoryInput *>(io->opaque);
    av_freep(&io->buffer);
    avio_context_free(&io);
}

}  // namespace sorvel::tool
