/* SPDX-License-Identifier: Apache-2.0 */
/* The floors of the whole-program rows of the benchmark report: what a tool
 * built on libavformat pays before any work of its own.
 *
 *   demux_floor read IN        open IN, analyse its streams (as a report of
 *                              them must, and as ffprobe does), read every
 *                              packet
 *   demux_floor scan IN        open IN and read every packet, without the
 *                              analysis (all a conversion needs)
 *   demux_floor write IN OUT   write as many bytes as IN holds to the new
 *                              file OUT, 1 MiB per write(2), from memory
 *
 * Each loads libavformat as the tools do.  `sorvel probe` is held against
 * `read`; `sorvel annexb` against the larger of `scan` and `write`, since it
 * can write on one core while it reads on the other but can beat neither. */
#include <fcntl.h>
#include <libavformat/avformat.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int writeLikeInput(const char *input, const char *output) {
    static char buffer[1 << 20];
    struct stat info;
    const int fd = open(output, O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (stat(input, &info) != 0 || fd < 0) {
        fprintf(stderr, "demux_floor: cannot stat %s or create %s\n", input, output);
        return 1;
    }
    memset(buffer, 0x5a, sizeof buffer);
    for (off_t left = info.st_size; left > 0;) {
        const size_t n = left < (off_t)sizeof buffer ? (size_t)left : sizeof buffer;
        if (write(fd, buffer, n) != (ssize_t)n) return 1;
        left -= (off_t)n;
    }
    return close(fd) != 0;
}

int main(int argc, char **argv) {
    if (argc == 4 && strcmp(argv[1], "write") == 0) {
        /* Keeps the link to libavformat, so that starting up costs the same. */
        if (avformat_version() == 0) return 1;
        return writeLikeInput(argv[2], argv[3]);
    }
    const int analyse = argc == 3 && strcmp(argv[1], "read") == 0;
    if (!analyse && !(argc == 3 && strcmp(argv[1], "scan") == 0)) {
        fprintf(stderr, "usage: demux_floor read IN | demux_floor scan IN | demux_floor write IN OUT\n");
        return 2;
    }
    AVFormatContext *context = NULL;
    if (avformat_open_input(&context, argv[2], NULL, NULL) < 0 ||
        (analyse && avformat_find_stream_info(context, NULL) < 0)) {
        fprintf(stderr, "demux_floor: cannot read %s\n", argv[2]);
        return 1;
    }
    AVPacket *packet = av_packet_alloc();
    int64_t bytes = 0;
    while (packet && av_read_frame(context, packet) >= 0) {
        bytes += packet->size;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return bytes > 0 ? 0 : 1;
}
