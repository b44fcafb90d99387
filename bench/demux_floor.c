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
 *   demux_floor copy IN OUT    read every packet as `scan` does while a
 *                              second thread writes each packet's bytes,
 *                              unchanged, to the new file OUT (writev(2))
 *
 * Each loads libavformat as the tools do.  `sorvel probe` is held against
 * `read`; `sorvel annexb` against the largest of `scan`, `write` and `copy`:
 * it can write on one core while it reads on the other, but then the two
 * copies through the page cache slow each other down, which `copy` measures
 * without any conversion. */
#include <fcntl.h>
#include <libavformat/avformat.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
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

/* The packets read and not yet written: the reader waits while the ring is
 * full; the writer takes every packet queued at once and writes them with
 * one writev(2). */
enum { kRing = 256, kBatch = 16 };
static struct {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    AVPacket *packets[kRing];
    unsigned head, tail; /* free-running: head - tail packets are queued */
    int done, failed, fd;
} ring = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};

static void *writePackets(void *unused) {
    (void)unused;
    struct iovec parts[kRing]; /* below Linux's IOV_MAX of 1024 */
    for (;;) {
        pthread_mutex_lock(&ring.mutex);
        while (ring.head == ring.tail && !ring.done) pthread_cond_wait(&ring.changed, &ring.mutex);
        const unsigned tail = ring.tail, head = ring.head;
        pthread_mutex_unlock(&ring.mutex);
        if (head == tail) return NULL;
        int count = 0;
        ssize_t bytes = 0;
        for (unsigned i = tail; i != head; ++i, ++count) {
            parts[count].iov_base = ring.packets[i % kRing]->data;
            parts[count].iov_len = (size_t)ring.packets[i % kRing]->size;
            bytes += ring.packets[i % kRing]->size;
        }
        /* A short write (a full disk) counts as a failure: this is a floor,
         * not a tool, and never retries. */
        if (!ring.failed && writev(ring.fd, parts, count) != bytes) ring.failed = 1;
        for (unsigned i = tail; i != head; ++i) av_packet_free(&ring.packets[i % kRing]);
        pthread_mutex_lock(&ring.mutex);
        ring.tail = head;
        pthread_cond_signal(&ring.changed);
        pthread_mutex_unlock(&ring.mutex);
    }
}

static int copyPackets(AVFormatContext *context, const char *output) {
    pthread_t writer;
    ring.fd = open(output, O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (ring.fd < 0 || pthread_create(&writer, NULL, writePackets, NULL) != 0) {
        fprintf(stderr, "demux_floor: cannot create %s or start its writer\n", output);
        return 1;
    }
    for (AVPacket *packet; (packet = av_packet_alloc()) != NULL;) {
        if (av_read_frame(context, packet) < 0) {
            av_packet_free(&packet);
            break;
        }
        pthread_mutex_lock(&ring.mutex);
        while (ring.head - ring.tail == kRing) pthread_cond_wait(&ring.changed, &ring.mutex);
        ring.packets[ring.head++ % kRing] = packet;
        /* A wake-up per packet would cost more than the writes it starts. */
        if (ring.head - ring.tail >= kBatch) pthread_cond_signal(&ring.changed);
        pthread_mutex_unlock(&ring.mutex);
    }
    pthread_mutex_lock(&ring.mutex);
    ring.done = 1;
    pthread_cond_signal(&ring.changed);
    pthread_mutex_unlock(&ring.mutex);
    pthread_join(writer, NULL);
    return (close(ring.fd) != 0) | ring.failed;
}

int main(int argc, char **argv) {
    if (argc == 4 && strcmp(argv[1], "write") == 0) {
        /* Keeps the link to libavformat, so that starting up costs the same. */
        if (avformat_version() == 0) return 1;
        return writeLikeInput(argv[2], argv[3]);
    }
    const int analyse = argc == 3 && strcmp(argv[1], "read") == 0;
    const int copy = argc == 4 && strcmp(argv[1], "copy") == 0;
    if (!analyse && !copy && !(argc == 3 && strcmp(argv[1], "scan") == 0)) {
        fprintf(stderr,
                "usage: demux_floor read IN | demux_floor scan IN | demux_floor write IN OUT | "
                "demux_floor copy IN OUT\n");
        return 2;
    }
    AVFormatContext *context = NULL;
    if (avformat_open_input(&context, argv[2], NULL, NULL) < 0 ||
        (analyse && avformat_find_stream_info(context, NULL) < 0)) {
        fprintf(stderr, "demux_floor: cannot read %s\n", argv[2]);
        return 1;
    }
    if (copy) {
        const int failed = copyPackets(context, argv[3]);
        avformat_close_input(&context);
        return failed;
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
