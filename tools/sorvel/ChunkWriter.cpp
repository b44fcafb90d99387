// SPDX-License-Identifier: Apache-2.0
#include "ChunkWriter.h"

#include <unistd.h>

#include <cerrno>

namespace sorvel::tool {

ChunkWriter::ChunkWriter(int fd) : fd_(fd) {
    queue_ = dispatch_queue_create("sorvel.output", nullptr);
    free_ = dispatch_semaphore_create(static_cast<long>(kChunks));
    for (Chunk &chunk : chunks_) {
        chunk.writer = this;
        freeChunks_.push_back(&chunk);
    }
}

ChunkWriter::~ChunkWriter() {
    if (!finished_) finish();
    if (queue_) dispatch_release(queue_);
    if (free_) dispatch_release(free_);
}

ChunkWriter::Chunk *ChunkWriter::takeFreeChunk() {
    dispatch_semaphore_wait(free_, DISPATCH_TIME_FOREVER);
    std::lock_guard<std::mutex> guard(freeLock_);
    Chunk *chunk = freeChunks_.back();
    freeChunks_.pop_back();
    chunk->bytes.clear();
    return chunk;
}

void ChunkWriter::writeChunk(void *context) {
    Chunk *chunk = static_cast<Chunk *>(context);
    ChunkWriter *writer = chunk->writer;
    const uint8_t *at = chunk->bytes.data();
    size_t left = chunk->bytes.size();
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
    {
        std::lock_guard<std::mutex> guard(writer->freeLock_);
        writer->freeChunks_.push_back(chunk);
    }
    dispatch_semaphore_signal(writer->free_);
}

void ChunkWriter::submit() {
    Chunk *chunk = current_;
    current_ = nullptr;
    if (!chunk) return;
    if (chunk->bytes.empty()) {
        std::lock_guard<std::mutex> guard(freeLock_);
        freeChunks_.push_back(chunk);
        dispatch_semaphore_signal(free_);
        return;
    }
    dispatch_async_f(queue_, chunk, writeChunk);
}

uint8_t *ChunkWriter::reserve(size_t size) {
    if (current_ && !current_->bytes.empty() && current_->bytes.size() + size > kChunkBytes) submit();
    if (!current_) {
        current_ = takeFreeChunk();
        // Reserved once, so that most chunks never move.
        try {
            current_->bytes.reserve(kChunkBytes);
        } catch (const std::bad_alloc &) {
        }
    }
    const size_t base = current_->bytes.size();
    try {
        current_->bytes.resize(base + size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    return current_->bytes.data() + base;
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
