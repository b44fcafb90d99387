/* SPDX-License-Identifier: Apache-2.0 */
/* The floor of the whole-program rows of the benchmark report: what any
 * tool that reads a file through libavformat pays, with no work of its own.
 *
 *   demux_floor read IN       open IN, find the stream info, read every packet
 *   demux_floor copy IN OUT   the same, writing each packet's bytes to OUT
 *                             through a 1 MiB buffer
 *
 * `sorvel probe` and `sorvel annexb` do this and their own work besides, so
 * a goal below these times cannot be met by anything built on libavformat. */
#include <libavformat/avformat.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    const int copy = argc == 4 && strcmp(argv[1], "copy") == 0;
    if (!copy && !(argc == 3 && strcmp(argv[1], "read") == 0)) {
        fprintf(stderr, "usage: demux_floor read IN | demux_floor copy IN OUT\n");
        return 2;
    }
    AVFormatContext *context = NULL;
    if (avformat_open_input(&context, argv[2], NULL, NULL) < 0 || avformat_find_stream_info(context, NULL) < 0) {
        fprintf(stderr, "demux_floor: cannot read %s\n", argv[2]);
        return 1;
    }
    static char buffer[1 << 20];
    FILE *out = copy ? fopen(argv[3], "wb") : NULL;
    if (copy && (!out || setvbuf(out, buffer, _IOFBF, sizeof buffer) != 0)) {
        fprintf(stderr, "demux_floor: cannot write %s\n", argv[3]);
        return 1;
    }
    AVPacket *packet = av_packet_alloc();
    int64_t bytes = 0;
    while (packet && av_read_frame(context, packet) >= 0) {
        bytes += packet->size;
        if (out && fwrite(packet->data, 1, (size_t)packet->size, out) != (size_t)packet->size) break;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    if (out && fclose(out) != 0) return 1;
    return bytes > 0 ? 0 : 1;
}
