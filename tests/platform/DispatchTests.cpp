// SPDX-License-Identifier: Apache-2.0
// Tests for one-time initialisation: exactly one run, every caller returning
// only after it completed and seeing its writes, the block form, and the
// fatal stop on recursive use.
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>
#include <vector>

namespace {

constexpr dispatch_once_t kCompleted = ~static_cast<dispatch_once_t>(0);

void countCall(void *context) {
    ++*static_cast<int *>(context);
}

TEST(DispatchOnceTest, RunsTheFunctionOnceWithItsContext) {
    static dispatch_once_t predicate;
    int calls = 0;
    dispatch_once_f(&predicate, &calls, countCall);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(predicate, kCompleted);
    dispatch_once_f(&predicate, &calls, countCall);
    dispatch_once_f(&predicate, &calls, countCall);
    EXPECT_EQ(calls, 1);
}

// An initialiser commonly initialises something else on the way; only use of
// its own predicate is recursion.
TEST(DispatchOnceTest, FunctionMayInitialiseAnotherPredicate) {
    static dispatch_once_t outer;
    static dispatch_once_t inner;
    static int innerCalls;
    innerCalls = 0;
    dispatch_once_f(&outer, nullptr, [](void *) { dispatch_once_f(&inner, &innerCalls, countCall); });
    EXPECT_EQ(innerCalls, 1);
    EXPECT_EQ(outer, kCompleted);
    EXPECT_EQ(inner, kCompleted);
}

struct Initialisation {
    std::atomic<int> runs{0};
    int payload = 0;  // plain on purpose: visibility must come from dispatch_once_f
    bool finished = false;
};

void slowInitialise(void *context) {
    auto *state = static_cast<Initialisation *>(context);
    state->runs.fetch_add(1);
    // Long enough for the other callers to arrive while this runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    state->payload = 42;
    state->finished = true;
}

TEST(DispatchOnceTest, ConcurrentFirstCallersWaitForTheSingleRun) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 10;
    for (int round = 0; round < kRounds; ++round) {
        dispatch_once_t predicate = 0;
        Initialisation state;
        std::latch start(kThreads);
        std::atomic<int> sawIncomplete{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                start.arrive_and_wait();
                dispatch_once_f(&predicate, &state, slowInitialise);
                if (!state.finished || state.payload != 42) sawIncomplete.fetch_add(1);
            });
        for (std::thread &thread : threads) thread.join();
        EXPECT_EQ(state.runs.load(), 1) << "round " << round;
        EXPECT_EQ(sawIncomplete.load(), 0) << "round " << round;
        EXPECT_EQ(predicate, kCompleted);
    }
}

TEST(DispatchOnceTest, BlockFormRunsOnce) {
    static dispatch_once_t predicate;
    __block int calls = 0;
    for (int i = 0; i < 3; ++i)
        dispatch_once(&predicate, ^{
          ++calls;
        });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(predicate, kCompleted);
}

dispatch_once_t gRecursivePredicate;

void recurse(void *) {
    dispatch_once_f(&gRecursivePredicate, nullptr, recurse);
}

TEST(DispatchOnceTest, RecursiveUseIsAFatalStop) {
    EXPECT_DEATH(dispatch_once_f(&gRecursivePredicate, nullptr, recurse), "dispatch_once_f .*recursively");
}

TEST(DispatchOnceTest, MissingArgumentsAreFatalStops) {
    static dispatch_once_t predicate;
    EXPECT_DEATH(dispatch_once_f(nullptr, nullptr, countCall), "dispatch_once_f .*NULL predicate");
    EXPECT_DEATH(dispatch_once_f(&predicate, nullptr, nullptr), "dispatch_once_f .*NULL function");
    EXPECT_DEATH(dispatch_once(&predicate, nullptr), "dispatch_once .*NULL block");
}

}  // namespace
