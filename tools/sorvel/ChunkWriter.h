/* SPDX-License-Identifier: Apache-2.0 */
// Writes a stream of bytes to a file descriptor on a serial dispatch queue,
// in chunks of about a mebibyte, so that the caller's next reads and
// conversions overlap the kernel's copying of the last ones.  The caller
// asks for room (`reserve`) and fills it in place: the bytes are copied only
// once more, by write(2).  At most kChunks chunks exist; `reserve` waits for
// one to come back when all are queued.
//
// Not thread-safe: one thread calls reserve and finish.  The first write
// error stops all later writes and is reported by `failed`/`finish`.
#ifndef SORVEL_TOOLS_SORVEL_CHUNKWRITER_H
#define SORVEL_TOOLS_SORVEL_CHUNKWRITER_H

#include <dispatch/dispatch.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace sorvel::tool {

class ChunkWriter {
public:
    // `fd` must stay open until finish() returns.
    explicit ChunkWriter(int fd);
    ~ChunkWriter();  // finishes if finish() was not called
    ChunkWriter(const ChunkWriter &) = delete;
    ChunkWriter &operator=(const ChunkWriter &) = delete;

    // False when the queue or the semaphore could not be made.
    bool valid() const { return queue_ != nullptr && free_ != nullptr; }
    // `size` bytes of room at the end of the current chunk, valid until the
    // next call; NULL when memory runs out.  A chunk that would grow past
    // kChunkBytes is handed to the queue first.
    uint8_t *reserve(size_t size);
    // The errno of the first failed write, 0 while none has failed.
    int failed() const { return error_.load(std::memory_order_acquire); }
    // Writes what is left and waits for every write; the errno of the first
    // failure, or 0.
    int finish();

    static constexpr size_t kChunkBytes = 1 << 20;
    static constexpr size_t kChunks = 3;

private:
    // Bytes not zeroed when reserved: the conversion writes every one.
    struct Chunk {
        ChunkWriter *writer;
        std::unique_ptr<uint8_t[]> bytes;
        size_t size = 0, capacity = 0;
    };
    static void writeChunk(void *context);
    void submit();
    Chunk *takeFreeChunk();

    int fd_;
    dispatch_queue_t queue_ = nullptr;
    // Counts the chunks not queued.  The queue writes them in the order they
    // were handed over, which is the order they are taken in (round robin),
    // so the next one to take is always the first to come back.
    dispatch_semaphore_t free_ = nullptr;
    size_t next_ = 0;
    Chunk *current_ = nullptr;
    Chunk chunks_[kChunks];
    std::atomic<int> error_{0};
    bool finished_ = false;
};

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_CHUNKWRITER_H
