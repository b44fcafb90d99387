/* SPDX-License-Identifier: Apache-2.0 */
// A CFAllocator for tests that counts what passes through it and fails on
// demand, so allocation-failure paths and ownership can be checked.
#ifndef SORVEL_TESTS_SUPPORT_TESTALLOCATOR_H
#define SORVEL_TESTS_SUPPORT_TESTALLOCATOR_H

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <cstdlib>

namespace sorvel_test {

class TestAllocator {
public:
    TestAllocator() {
        CFAllocatorContext context = {0,        this,       retainInfo, releaseInfo, nullptr,
                                      allocate, reallocate, deallocate, nullptr};
        allocator_ = CFAllocatorCreate(kCFAllocatorSystemDefault, &context);
    }
    ~TestAllocator() {
        if (allocator_) CFRelease(allocator_);
    }
    TestAllocator(const TestAllocator &) = delete;
    TestAllocator &operator=(const TestAllocator &) = delete;

    CFAllocatorRef get() const { return allocator_; }

    // Allocations succeed until `n` more have been made, then fail (-1:
    // never fail).
    void failAfter(long n) { failAfter_ = n; }
    void failAlways() { failAfter_ = 0; }

    long allocations() const { return allocations_; }
    long deallocations() const { return deallocations_; }
    long outstanding() const { return allocations_ - deallocations_; }
    long failures() const { return failures_; }
    long infoRetains() const { return infoRetains_; }
    long infoReleases() const { return infoReleases_; }

private:
    static TestAllocator *self(const void *info) { return static_cast<TestAllocator *>(const_cast<void *>(info)); }
    static const void *retainInfo(const void *info) {
        self(info)->infoRetains_++;
        return info;
    }
    static void releaseInfo(const void *info) { self(info)->infoReleases_++; }
    bool mayAllocate() {
        long remaining = failAfter_.load();
        if (remaining < 0) return true;
        if (remaining == 0) {
            failures_++;
            return false;
        }
        failAfter_--;
        return true;
    }
    static void *allocate(CFIndex size, CFOptionFlags, void *info) {
        TestAllocator *me = self(info);
        if (!me->mayAllocate()) return nullptr;
        void *memory = std::malloc(static_cast<size_t>(size));
        if (memory) me->allocations_++;
        return memory;
    }
    static void *reallocate(void *ptr, CFIndex size, CFOptionFlags, void *info) {
        TestAllocator *me = self(info);
        if (!me->mayAllocate()) return nullptr;
        return std::realloc(ptr, static_cast<size_t>(size));
    }
    static void deallocate(void *ptr, void *info) {
        self(info)->deallocations_++;
        std::free(ptr);
    }

    CFAllocatorRef allocator_ = nullptr;
    std::atomic<long> failAfter_{-1};
    std::atomic<long> allocations_{0};
    std::atomic<long> deallocations_{0};
    std::atomic<long> failures_{0};
    std::atomic<long> infoRetains_{0};
    std::atomic<long> infoReleases_{0};
};

}  // namespace sorvel_test

#endif  // SORVEL_TESTS_SUPPORT_TESTALLOCATOR_H
