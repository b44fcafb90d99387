// SPDX-License-Identifier: Apache-2.0
// The demo stream that every subcommand reads when no file is named: three
// seconds of 320x180 H.264 High with B-frames and stereo AAC, in MP4.  It is
// assembled into the program's read-only data so the tool needs no files.
#include "EmbeddedStream.h"

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

const uint8_t *embeddedStream(size_t &size) {
    size = static_cast<size_t>(sorvel_embedded_stream_end - sorvel_embedded_stream_begin);
    return sorvel_embedded_stream_begin;
}

}  // namespace sorvel::tool
