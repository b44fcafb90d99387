// SPDX-License-Identifier: Apache-2.0
#include "ChunkWriter.h"

#include <unistd.h>

#include <cerrno>

namespace sorvel::tool {

ChunkWriter::ChunkWriter(int fd) : fd_(fd) {
    queue_ = dispatch_queue_create("sorvel.output", nullptr);
    free_ = dispatch_semaphore_create(static_cast<long>(kChunks));
    for (Chunk &chunk : chunks_) chunk.writer = this;
}

ChunkWriter::~ChunkWriter() {
    if (!finished_) finish();
    if (queue_) dispatch_release(queue_);
    if (free_) dispatch_release(free_);
}

ChunkWriter::Chunk *ChunkWriter::takeFreeChunk() {
    dispatch_semaphore_wait(free_, DISPATCH_TIME_FOREVER);
    Chunk *chunk = &chunks_[next_++ % kChunks];
    chunk->size = 0;
    return chunk;
}

void ChunkWriter::writeChunk(void *context) {
    Chunk *chunk = static_cast<Chunk *>(context);
    ChunkWriter *writer = chunk->writer;
    const uint8_t *at = chunk->bytes.get();
    size_t left = chunk->size;
    while (left > 0 && writer->error_.load(std::memory_order_relaxed) == 0) {
        const ssize_t written = write(writer->fd_, at, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            writer->error_.store(errno, std::memory_order_release);
            break;
        }
        at += written;
        left -= static_cast<size_t>(written);
    }
    dispatch_semaphore_signal(writer->free_);
}

void ChunkWriter::submit() {
    Chunk *chunk = current_;
    current_ = nullptr;
    if (!chunk) return;
    if (chunk->size == 0) {
        // Not queued: it is the next one taken again.
        --next_;
        dispatch_semaphore_signal(free_);
        return;
    }
    dispatch_async_f(queue_, chunk, writeChunk);
}

uint8_t *ChunkWriter::reserve(size_t size) {
    if (current_ && current_->size != 0 && current_->size + size > kChunkBytes) submit();
    if (!current_) current_ = takeFreeChunk();
    Chunk &chunk = *current_;
    if (size > chunk.capacity - chunk.size) {
        // Only an empty chunk gets here (one holding bytes was submitted
        // above unless the new ones fit), so there is nothing to keep.
        const size_t capacity = size > kChunkBytes ? size : kChunkBytes;
        std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[capacity]);
        if (!bytes) return nullptr;
        chunk.bytes = std::move(bytes);
        chunk.capacity = capacity;
    }
    uint8_t *room = chunk.bytes.get() + chunk.size;
    chunk.size += size;
    return room;
}

int ChunkWriter::finish() {
    if (!finished_ && valid()) {
        submit();
        // Every chunk back means every write has returned.
        for (size_t i = 0; i < kChunks; i++) dispatch_semaphore_wait(free_, DISPATCH_TIME_FOREVER);
        for (size_t i = 0; i < kChunks; i++) dispatch_semaphore_signal(free_);
    }
    finished_ = true;
    return failed();
}

}  // namespace sorvel::tool
