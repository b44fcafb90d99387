// SPDX-License-Identifier: Apache-2.0
/*
 * One-time initialisation.
 *
 * A predicate moves 0 -> running -> ~0.  The "running" value is the address
 * of a thread-local byte of the thread running the function: it is never 0
 * or ~0, it is unique among live threads, and it lets a thread that finds
 * its own mark in the predicate recognise a recursive call instead of
 * waiting for itself forever.
 *
 * Waiters of every predicate share one mutex and condition variable.  First
 * calls are rare and short, so a per-predicate wait queue would buy nothing;
 * the completing thread stores ~0 under the mutex, so a waiter that checked
 * the predicate under the mutex cannot miss the wake-up.
 */
#include <XPLog/XPLog.h>
#include <dispatch/dispatch.h>
#include <pthread.h>
#include <stdio.h>

namespace {

constexpr const char *kSourcePath = "Sorvel/platform/dispatch";
constexpr intptr_t kDone = ~static_cast<intptr_t>(0);

pthread_mutex_t gOnceLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gOnceCompleted = PTHREAD_COND_INITIALIZER;

thread_local char tRunningMark;

[[noreturn]] void fatal(const char *function, int line, const char *message) {
    XPLogX(2, function, kSourcePath, line, message);
    XPAbortWithBacktrace();
}

void invokeBlock(void *context) {
    reinterpret_cast<dispatch_block_t>(context)();
}

}  // namespace

extern "C" void dispatch_once_f(dispatch_once_t *predicate, void *context, dispatch_function_t function) noexcept {
    if (predicate == nullptr) fatal("dispatch_once_f", __LINE__, "BUG: NULL predicate");
    // The acquire pairs with the release below, so a caller that sees ~0
    // also sees everything the function wrote.
    if (__atomic_load_n(predicate, __ATOMIC_ACQUIRE) == kDone) return;
    if (function == nullptr) fatal("dispatch_once_f", __LINE__, "BUG: NULL function");

    const intptr_t mark = reinterpret_cast<intptr_t>(&tRunningMark);
    intptr_t observed = 0;
    if (__atomic_compare_exchange_n(predicate, &observed, mark, false, __ATOMIC_ACQUIRE, __ATOMIC_ACQUIRE)) {
        function(context);
        pthread_mutex_lock(&gOnceLock);
        __atomic_store_n(predicate, kDone, __ATOMIC_RELEASE);
        pthread_cond_broadcast(&gOnceCompleted);
        pthread_mutex_unlock(&gOnceLock);
        return;
    }
    if (observed == kDone) return;
    if (observed == mark) {
        char message[160];
        snprintf(message, sizeof message,
                 "BUG: dispatch_once called recursively on predicate %p from inside its own function",
                 static_cast<void *>(predicate));
        fatal("dispatch_once_f", __LINE__, message);
    }

    pthread_mutex_lock(&gOnceLock);
    while (__atomic_load_n(predicate, __ATOMIC_ACQUIRE) != kDone) pthread_cond_wait(&gOnceCompleted, &gOnceLock);
    pthread_mutex_unlock(&gOnceLock);
}

extern "C" void dispatch_once(dispatch_once_t *predicate, dispatch_block_t block) noexcept {
    if (predicate != nullptr && __atomic_load_n(predicate, __ATOMIC_ACQUIRE) == kDone) return;
    if (block == nullptr) fatal("dispatch_once", __LINE__, "BUG: NULL block");
    // The block runs before this call returns, so it needs no copy.
    dispatch_once_f(predicate, reinterpret_cast<void *>(block), invokeBlock);
}

/*
 * Queues, timers, sources, semaphores and groups.
 *
 * Threads.  Worker threads take jobs from one pool-wide FIFO; a new worker
 * starts whenever a job arrives and no idle worker is waiting for it, so a
 * job that blocks (dispatch_sync, a semaphore) never starves the others.
 * Workers are kept for the life of the process.  A serial queue is one job
 * at a time in the pool: it drains its own items in order and gives the
 * worker back when it is empty or suspended.  A global queue hands each
 * item to the pool directly.
 *
 * Timers.  One timer thread keeps every armed timer source and every
 * dispatch_after item and sleeps until the earliest deadline with
 * pthread_cond_timedwait on CLOCK_MONOTONIC: the deadline is absolute, so
 * repeated sleeps do not drift, and its timer slack is set to 1 ns so the
 * kernel does not defer the wake-up by the default 50 us.  All timer state
 * (deadlines, counts, the handler bookkeeping of sources) is guarded by one
 * mutex, which also makes "test whether due, then re-arm" atomic.
 */
#include <Block.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <new>
#include <vector>

struct dispatch_source_type_s {
    bool timer;
};

namespace {

XPLogModule gDispatchLog;

__attribute__((format(printf, 3, 4))) void logError(const char *function, int line, const char *format, ...) {
    if (gDispatchLog.threshold != 0 ? gDispatchLog.threshold < 3
                                    : !XPLogDetermineLogLevel(3, &gDispatchLog, kSourcePath, function, line))
        return;
    char message[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    XPLogS(3, &gDispatchLog, function, kSourcePath, line, "%s", message);
}

uint64_t monotonicNow() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * NSEC_PER_SEC + static_cast<uint64_t>(now.tv_nsec);
}

timespec toTimespec(uint64_t nanoseconds) {
    timespec result;
    result.tv_sec = static_cast<time_t>(nanoseconds / NSEC_PER_SEC);
    result.tv_nsec = static_cast<long>(nanoseconds % NSEC_PER_SEC);
    return result;
}

// A dispatch time as an absolute monotonic deadline.
uint64_t deadlineOf(dispatch_time_t when) {
    return when == DISPATCH_TIME_NOW ? monotonicNow() : when;
}

void initMonotonicCondition(pthread_cond_t *condition) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

// Waits on `condition` until `deadline` (FOREVER: without end); false once
// the deadline has passed.
bool waitUntil(pthread_cond_t *condition, pthread_mutex_t *mutex, uint64_t deadline) {
    if (deadline == DISPATCH_TIME_FOREVER) {
        pthread_cond_wait(condition, mutex);
        return true;
    }
    timespec until = toTimespec(deadline);
    return pthread_cond_timedwait(condition, mutex, &until) != ETIMEDOUT;
}

class Locked {
public:
    explicit Locked(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~Locked() { pthread_mutex_unlock(mutex_); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;

private:
    pthread_mutex_t *mutex_;
};

// ---- objects ----

enum class Kind : uint8_t { Queue, Source, Semaphore, Group };

struct Object {
    Kind kind;
    bool immortal;
    uint32_t references;  // atomic
    void *context;
    virtual ~Object() = default;
    Object(Kind k) : kind(k), immortal(false), references(1), context(nullptr) {}
};

Object *asObject(dispatch_object_t object) {
    return reinterpret_cast<Object *>(object);
}

void retainObject(Object *object) {
    if (!object->immortal) __atomic_add_fetch(&object->references, 1, __ATOMIC_RELAXED);
}

void releaseObject(Object *object) {
    if (object->immortal) return;
    if (__atomic_sub_fetch(&object->references, 1, __ATOMIC_ACQ_REL) == 0) delete object;
}

// ---- the worker pool ----

struct Job {
    dispatch_function_t function;
    void *context;
};

struct Pool {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t available = PTHREAD_COND_INITIALIZER;
    std::deque<Job> jobs;
    size_t idle = 0;
};

// Never destroyed: workers may still be waiting when the process exits.
Pool &pool() {
    static Pool *instance = new Pool;
    return *instance;
}

void *workerMain(void *) {
    // Timer sources' handlers wait for their exact deadline on these threads
    // (see prewake below); without this the kernel may defer that wake-up
    // by up to 50 us.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    Pool &p = pool();
    pthread_mutex_lock(&p.lock);
    for (;;) {
        while (p.jobs.empty()) {
            p.idle++;
            pthread_cond_wait(&p.available, &p.lock);
            p.idle--;
        }
        Job job = p.jobs.front();
        p.jobs.pop_front();
        pthread_mutex_unlock(&p.lock);
        job.function(job.context);
        pthread_mutex_lock(&p.lock);
    }
    return nullptr;
}

void submitJob(dispatch_function_t function, void *context) {
    Pool &p = pool();
    Locked locked(&p.lock);
    p.jobs.push_back({function, context});
    if (p.idle >= p.jobs.size()) {
        pthread_cond_signal(&p.available);
        return;
    }
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    int failed = pthread_create(&thread, &attributes, workerMain, nullptr);
    pthread_attr_destroy(&attributes);
    // Without a new thread the job waits for a busy worker.
    if (failed != 0) pthread_cond_signal(&p.available);
}

// ---- queues ----

struct SyncTurn;

struct Item {
    dispatch_function_t function;
    void *context;
    SyncTurn *turn;  // non-NULL: a dispatch_sync caller waiting for its turn
};

struct SyncTurn {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    int state = 0;       // 0 waiting, 1 the caller's turn, 2 the caller is done
    int references = 2;  // the caller and the drain: the last one frees it
};

void releaseTurn(SyncTurn *turn) {
    if (__atomic_sub_fetch(&turn->references, 1, __ATOMIC_ACQ_REL) == 0) delete turn;
}

struct Queue : Object {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::deque<Item> items;
    bool concurrent;
    bool active = false;  // a drain job is scheduled or running
    int suspended = 0;
    char label[64];
    Queue(const char *name, bool isConcurrent) : Object(Kind::Queue), concurrent(isConcurrent) {
        snprintf(label, sizeof label, "%s", name != nullptr ? name : "");
    }
};

thread_local Queue *tCurrentQueue;

void drainQueue(void *context);

// Starts a drain unless one runs or the queue is suspended; lock held.
void scheduleDrainLocked(Queue *queue) {
    if (queue->active || queue->suspended > 0 || queue->items.empty()) return;
    queue->active = true;
    retainObject(queue);
    submitJob(drainQueue, queue);
}

void runSyncTurn(SyncTurn *turn) {
    pthread_mutex_lock(&turn->lock);
    turn->state = 1;
    pthread_cond_broadcast(&turn->changed);
    while (turn->state != 2) pthread_cond_wait(&turn->changed, &turn->lock);
    pthread_mutex_unlock(&turn->lock);
    releaseTurn(turn);
}

void drainQueue(void *context) {
    Queue *queue = static_cast<Queue *>(context);
    Queue *outer = tCurrentQueue;
    tCurrentQueue = queue;
    pthread_mutex_lock(&queue->lock);
    while (!queue->items.empty() && queue->suspended == 0) {
        Item item = queue->items.front();
        queue->items.pop_front();
        pthread_mutex_unlock(&queue->lock);
        if (item.turn != nullptr)
            runSyncTurn(item.turn);
        else
            item.function(item.context);
        pthread_mutex_lock(&queue->lock);
    }
    queue->active = false;
    scheduleDrainLocked(queue);
    pthread_mutex_unlock(&queue->lock);
    tCurrentQueue = outer;
    releaseObject(queue);
}

Queue *gGlobalQueues[4];
dispatch_once_t gGlobalQueuesOnce;

void makeGlobalQueues(void *) {
    const char *names[4] = {"global.background", "global.low", "global.default", "global.high"};
    for (int i = 0; i < 4; i++) {
        gGlobalQueues[i] = new Queue(names[i], true);
        gGlobalQueues[i]->immortal = true;
    }
}

Queue *globalQueue(long priority) {
    dispatch_once_f(&gGlobalQueuesOnce, nullptr, makeGlobalQueues);
    if (priority >= DISPATCH_QUEUE_PRIORITY_HIGH) return gGlobalQueues[3];
    if (priority >= DISPATCH_QUEUE_PRIORITY_DEFAULT) return gGlobalQueues[2];
    if (priority >= DISPATCH_QUEUE_PRIORITY_LOW) return gGlobalQueues[1];
    return gGlobalQueues[0];
}

struct Handoff {
    dispatch_function_t function;
    void *context;
    Queue *queue;  // for concurrent queues, to keep them current
};

void runConcurrentItem(void *context) {
    Handoff *handoff = static_cast<Handoff *>(context);
    Queue *outer = tCurrentQueue;
    tCurrentQueue = handoff->queue;
    handoff->function(handoff->context);
    tCurrentQueue = outer;
    delete handoff;
}

Queue *checkedQueue(dispatch_queue_t queue, const char *function, int line) {
    Object *object = reinterpret_cast<Object *>(queue);
    if (object == nullptr || object->kind != Kind::Queue) {
        logError(function, line, "queue is NULL or not a queue");
        return nullptr;
    }
    return static_cast<Queue *>(object);
}

void enqueue(Queue *queue, dispatch_function_t function, void *context) {
    if (queue->concurrent) {
        submitJob(runConcurrentItem, new Handoff{function, context, queue});
        return;
    }
    Locked locked(&queue->lock);
    queue->items.push_back({function, context, nullptr});
    scheduleDrainLocked(queue);
}

dispatch_block_t copyBlock(dispatch_block_t block) {
    return reinterpret_cast<dispatch_block_t>(_Block_copy(reinterpret_cast<const void *>(block)));
}

void invokeAndReleaseBlock(void *context) {
    dispatch_block_t block = reinterpret_cast<dispatch_block_t>(context);
    block();
    _Block_release(block);
}

// ---- the timer thread ----

struct Source;

struct AfterItem {
    Queue *queue;  // retained
    dispatch_function_t function;
    void *context;
};

struct Timers {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed;
    pthread_cond_t handlerDone = PTHREAD_COND_INITIALIZER;
    std::vector<Source *> armed;  // each holds a reference
    std::multimap<uint64_t, AfterItem> after;
    bool threadStarted = false;
    Timers() { initMonotonicCondition(&changed); }
};

Timers &timers() {
    static Timers *instance = new Timers;
    return *instance;
}

struct Source : Object {
    const dispatch_source_type_s *type;
    Queue *target;  // retained
    int suspended = 1;
    bool cancelled = false;
    bool cancelHandled = false;
    bool scheduled = false;  // a delivery is queued or running
    // Timers.
    uint64_t deadline = DISPATCH_TIME_FOREVER;
    uint64_t interval = 0;  // 0: one-shot
    uint64_t firings = 0;
    bool inArmedList = false;
    bool prewakeQueued = false;  // a prewake job sits on the target queue
    // Deliveries.
    uint64_t pending = 0;  // firings (timer) or merged sum (data add)
    uint64_t data = 0;     // what the current handler call delivers
    int handlersRunning = 0;
    pthread_t handlerThread{};
    dispatch_function_t eventFunction = nullptr;
    dispatch_function_t cancelFunction = nullptr;
    dispatch_block_t eventBlock = nullptr;  // owned copies
    dispatch_block_t cancelBlock = nullptr;
    Source(const dispatch_source_type_s *t, Queue *q) : Object(Kind::Source), type(t), target(q) {}
    ~Source() override {
        if (eventBlock != nullptr) _Block_release(eventBlock);
        if (cancelBlock != nullptr) _Block_release(cancelBlock);
        releaseObject(target);
    }
};

void deliver(void *context);

// Runs a handler, lock released: the block when there is one (and gives
// back the reference held on it), else the function with the context.
void callHandler(const Source *source, dispatch_block_t block, dispatch_function_t function) {
    if (block != nullptr) {
        block();
        _Block_release(block);
    } else if (function != nullptr) {
        function(source->context);
    }
}

// Queues a handler call when one is owed and allowed; timer lock held.
void scheduleDeliveryLocked(Source *source) {
    if (source->scheduled || source->suspended > 0) return;
    bool owed = source->cancelled ? !source->cancelHandled : source->pending > 0;
    if (!owed) return;
    source->scheduled = true;
    retainObject(source);
    enqueue(source->target, deliver, source);
}

void deliver(void *context) {
    Source *source = static_cast<Source *>(context);
    Timers &t = timers();
    pthread_mutex_lock(&t.lock);
    if (source->cancelled && !source->cancelHandled && source->suspended == 0) {
        source->cancelHandled = true;
        dispatch_function_t function = source->cancelFunction;
        dispatch_block_t block = source->cancelBlock;
        source->cancelBlock = nullptr;
        dispatch_block_t event = source->eventBlock;
        source->eventBlock = nullptr;
        source->eventFunction = nullptr;
        source->pending = 0;
        pthread_mutex_unlock(&t.lock);
        callHandler(source, block, function);
        if (event != nullptr) _Block_release(event);
        pthread_mutex_lock(&t.lock);
    } else if (!source->cancelled && source->pending > 0 && source->suspended == 0) {
        source->data = source->pending;
        source->pending = 0;
        dispatch_function_t function = source->eventFunction;
        dispatch_block_t block = source->eventBlock != nullptr ? copyBlock(source->eventBlock) : dispatch_block_t{};
        source->handlersRunning++;
        source->handlerThread = pthread_self();
        pthread_mutex_unlock(&t.lock);
        callHandler(source, block, function);
        pthread_mutex_lock(&t.lock);
        source->handlersRunning--;
        pthread_cond_broadcast(&t.handlerDone);
    }
    source->scheduled = false;
    scheduleDeliveryLocked(source);
    pthread_mutex_unlock(&t.lock);
    releaseObject(source);
}

void *timerThreadMain(void *);

void startTimerThreadLocked(Timers &t) {
    if (t.threadStarted) return;
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (pthread_create(&thread, &attributes, timerThreadMain, nullptr) == 0) t.threadStarted = true;
    pthread_attr_destroy(&attributes);
    if (!t.threadStarted) fatal("dispatch_source_set_timer", __LINE__, "BUG: cannot start the timer thread");
}

void armLocked(Timers &t, Source *source) {
    if (source->inArmedList) return;
    source->inArmedList = true;
    retainObject(source);
    t.armed.push_back(source);
}

// Removes a source from the armed list; the caller releases the returned
// reference outside the lock (NULL when it was not armed).
Source *disarmLocked(Timers &t, Source *source) {
    if (!source->inArmedList) return nullptr;
    source->inArmedList = false;
    t.armed.erase(std::find(t.armed.begin(), t.armed.end(), source));
    return source;
}

// Counts a due deadline as firings and moves on to the next one.  Timer
// lock held; returns a reference to release when the source left the
// armed list.
Source *fireIfDueLocked(Timers &t, Source *source, uint64_t now) {
    if (source->deadline == DISPATCH_TIME_FOREVER || source->deadline > now) return nullptr;
    uint64_t count = 1;
    Source *leaving = nullptr;
    if (source->interval == 0) {
        source->deadline = DISPATCH_TIME_FOREVER;
        leaving = disarmLocked(t, source);
    } else {
        // Stay on the grid of the first deadline; missed ones are counted.
        uint64_t late = now - source->deadline;
        uint64_t skipped = late / source->interval;
        count += skipped;
        uint64_t step = (skipped + 1) * source->interval;
        source->deadline =
            source->deadline > DISPATCH_TIME_FOREVER - 1 - step ? DISPATCH_TIME_FOREVER : source->deadline + step;
        if (source->deadline == DISPATCH_TIME_FOREVER) leaving = disarmLocked(t, source);
    }
    source->firings += count;
    source->pending += count;
    scheduleDeliveryLocked(source);
    return leaving;
}

// A firing handed from the timer thread to a worker costs a second
// thread wake-up after the deadline.  So shortly before a deadline the
// timer thread queues a prewake job on the source's target queue: a worker
// picks it up early, sleeps on its own until the exact deadline, counts the
// firing there and runs the handler next, on the same thread.  The firing
// is still counted only once its deadline has passed, under the timer lock,
// by whichever of the two gets there first, so re-arming and disarming keep
// their meaning; a prewake that finds the deadline moved does nothing.  The
// job holds the serial queue for at most kPrewakeLead.
constexpr uint64_t kPrewakeLead = 150 * NSEC_PER_USEC;

void prewake(void *context) {
    Source *source = static_cast<Source *>(context);
    Timers &t = timers();
    Source *leaving = nullptr;
    pthread_mutex_lock(&t.lock);
    source->prewakeQueued = false;
    uint64_t deadline = source->deadline;
    if (!source->cancelled && deadline != DISPATCH_TIME_FOREVER && deadline <= monotonicNow() + kPrewakeLead) {
        pthread_mutex_unlock(&t.lock);
        timespec until = toTimespec(deadline);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
        }
        pthread_mutex_lock(&t.lock);
        leaving = fireIfDueLocked(t, source, monotonicNow());
    }
    pthread_mutex_unlock(&t.lock);
    if (leaving != nullptr) releaseObject(leaving);
    releaseObject(source);
}

// The time the timer thread must next act for `source`: its prewake, or its
// deadline once the prewake is queued.  Timer lock held.
uint64_t nextActionLocked(const Source *source) {
    if (source->deadline == DISPATCH_TIME_FOREVER || source->prewakeQueued || source->suspended > 0 ||
        source->cancelled)
        return source->deadline;
    return source->deadline > kPrewakeLead ? source->deadline - kPrewakeLead : 0;
}

// Queues the prewake job of a source whose deadline is near.  Timer lock
// held (enqueue takes only the queue's lock).
void prewakeIfNearLocked(Source *source, uint64_t now) {
    if (source->deadline == DISPATCH_TIME_FOREVER || source->deadline <= now) return;
    if (nextActionLocked(source) > now || source->prewakeQueued || source->suspended > 0 || source->cancelled) return;
    source->prewakeQueued = true;
    retainObject(source);
    enqueue(source->target, prewake, source);
}

void *timerThreadMain(void *) {
    // The kernel otherwise defers timed wake-ups by up to 50 us to batch them.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    Timers &t = timers();
    std::vector<Source *> released;
    std::vector<AfterItem> due;
    pthread_mutex_lock(&t.lock);
    for (;;) {
        uint64_t now = monotonicNow();
        for (size_t i = 0; i < t.armed.size();) {
            Source *leaving = fireIfDueLocked(t, t.armed[i], now);
            if (leaving != nullptr) {
                released.push_back(leaving);
            } else {
                prewakeIfNearLocked(t.armed[i], now);
                i++;
            }
        }
        while (!t.after.empty() && t.after.begin()->first <= now) {
            due.push_back(t.after.begin()->second);
            t.after.erase(t.after.begin());
        }
        if (!released.empty() || !due.empty()) {
            pthread_mutex_unlock(&t.lock);
            for (Source *source : released) releaseObject(source);
            for (const AfterItem &item : due) {
                enqueue(item.queue, item.function, item.context);
                releaseObject(item.queue);
            }
            released.clear();
            due.clear();
            pthread_mutex_lock(&t.lock);
            continue;
        }
        uint64_t next = DISPATCH_TIME_FOREVER;
        for (Source *source : t.armed) next = std::min(next, nextActionLocked(source));
        if (!t.after.empty()) next = std::min(next, t.after.begin()->first);
        waitUntil(&t.changed, &t.lock, next);
    }
    return nullptr;
}

Source *checkedSource(dispatch_source_t source, const char *function, int line) {
    Object *object = reinterpret_cast<Object *>(source);
    if (object == nullptr || object->kind != Kind::Source) {
        logError(function, line, "source is NULL or not a source");
        return nullptr;
    }
    return static_cast<Source *>(object);
}

// Installs a source's event or cancel handler, given as a block (copied; may
// be NULL) or as a function, and releases the block it replaces.  Once the
// cancel handler has run, handlers are no longer installed.
void setHandler(dispatch_source_t source, const char *function, int line, dispatch_block_t Source::*blockField,
                dispatch_function_t Source::*functionField, dispatch_block_t block, dispatch_function_t handler) {
    Source *s = checkedSource(source, function, line);
    if (s == nullptr) return;
    dispatch_block_t copy = block != nullptr ? copyBlock(block) : dispatch_block_t{};
    dispatch_block_t old;
    {
        Locked locked(&timers().lock);
        if (s->cancelHandled) {
            old = copy;
        } else {
            old = s->*blockField;
            s->*blockField = copy;
            s->*functionField = handler;
        }
    }
    if (old != nullptr) _Block_release(old);
}

// Sets a timer source's deadline and interval; timer lock held.  Returns a
// reference to release when the source left the armed list.
Source *setTimerLocked(Timers &t, Source *source, dispatch_time_t start, uint64_t interval) {
    startTimerThreadLocked(t);
    source->interval = interval == DISPATCH_TIME_FOREVER ? 0 : interval;
    if (start == DISPATCH_TIME_FOREVER) {
        source->deadline = DISPATCH_TIME_FOREVER;
        return disarmLocked(t, source);
    }
    source->deadline = deadlineOf(start);
    armLocked(t, source);
    pthread_cond_signal(&t.changed);
    return nullptr;
}

// ---- semaphores and groups ----

struct Semaphore : Object {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed;
    long value;
    long waiters = 0;
    explicit Semaphore(long v) : Object(Kind::Semaphore), value(v) { initMonotonicCondition(&changed); }
    ~Semaphore() override { pthread_cond_destroy(&changed); }
};

struct Notify {
    Queue *queue;  // retained
    dispatch_function_t function;
    void *context;
};

struct Group : Object {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t empty;
    long count = 0;
    std::vector<Notify> notifications;
    Group() : Object(Kind::Group) { initMonotonicCondition(&empty); }
    ~Group() override { pthread_cond_destroy(&empty); }
};

template <typename T>
T *checkedKind(dispatch_object_t object, Kind kind, const char *function, int line, const char *what) {
    Object *o = asObject(object);
    if (o == nullptr || o->kind != kind) {
        logError(function, line, "%s is NULL or not a %s", what, what);
        return nullptr;
    }
    return static_cast<T *>(o);
}

struct GroupItem {
    Group *group;
    dispatch_function_t function;
    void *context;
};

void runGroupItem(void *context) {
    GroupItem *item = static_cast<GroupItem *>(context);
    item->function(item->context);
    dispatch_group_leave(reinterpret_cast<dispatch_group_t>(item->group));
    releaseObject(item->group);
    delete item;
}

}  // namespace

extern "C" {
const struct dispatch_source_type_s _dispatch_source_type_timer = {true};
const struct dispatch_source_type_s _dispatch_source_type_data_add = {false};
}

extern "C" {

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) noexcept {
    if (when == DISPATCH_TIME_FOREVER) return DISPATCH_TIME_FOREVER;
    uint64_t base = deadlineOf(when);
    if (delta >= 0) {
        uint64_t step = static_cast<uint64_t>(delta);
        return base >= DISPATCH_TIME_FOREVER - step ? DISPATCH_TIME_FOREVER : base + step;
    }
    uint64_t step = 0 - static_cast<uint64_t>(delta);
    return base <= step ? 1 : base - step;
}

void dispatch_retain(dispatch_object_t object) noexcept {
    Object *o = asObject(object);
    if (o == nullptr) {
        logError("dispatch_retain", __LINE__, "object is NULL");
        return;
    }
    retainObject(o);
}

void dispatch_release(dispatch_object_t object) noexcept {
    Object *o = asObject(object);
    if (o == nullptr) {
        logError("dispatch_release", __LINE__, "object is NULL");
        return;
    }
    releaseObject(o);
}

void dispatch_set_context(dispatch_object_t object, void *context) noexcept {
    Object *o = asObject(object);
    if (o == nullptr) {
        logError("dispatch_set_context", __LINE__, "object is NULL");
        return;
    }
    __atomic_store_n(&o->context, context, __ATOMIC_RELEASE);
}

void *dispatch_get_context(dispatch_object_t object) noexcept {
    Object *o = asObject(object);
    return o != nullptr ? __atomic_load_n(&o->context, __ATOMIC_ACQUIRE) : nullptr;
}

void dispatch_suspend(dispatch_object_t object) noexcept {
    Object *o = asObject(object);
    if (o == nullptr || (o->kind != Kind::Queue && o->kind != Kind::Source) || o->immortal) {
        logError("dispatch_suspend", __LINE__, "object is NULL, a global queue or neither queue nor source");
        return;
    }
    if (o->kind == Kind::Queue) {
        Queue *queue = static_cast<Queue *>(o);
        Locked locked(&queue->lock);
        queue->suspended++;
        return;
    }
    Locked locked(&timers().lock);
    static_cast<Source *>(o)->suspended++;
}

void dispatch_resume(dispatch_object_t object) noexcept {
    Object *o = asObject(object);
    if (o == nullptr || (o->kind != Kind::Queue && o->kind != Kind::Source) || o->immortal) {
        logError("dispatch_resume", __LINE__, "object is NULL, a global queue or neither queue nor source");
        return;
    }
    if (o->kind == Kind::Queue) {
        Queue *queue = static_cast<Queue *>(o);
        Locked locked(&queue->lock);
        if (queue->suspended == 0) {
            logError("dispatch_resume", __LINE__, "queue \"%s\" is not suspended", queue->label);
            return;
        }
        if (--queue->suspended == 0) scheduleDrainLocked(queue);
        return;
    }
    Source *source = static_cast<Source *>(o);
    Locked locked(&timers().lock);
    if (source->suspended == 0) {
        logError("dispatch_resume", __LINE__, "source %p is not suspended", static_cast<void *>(source));
        return;
    }
    if (--source->suspended == 0) scheduleDeliveryLocked(source);
}

dispatch_queue_t dispatch_queue_create(const char *label, dispatch_queue_attr_t) noexcept {
    Queue *queue = new (std::nothrow) Queue(label, false);
    return reinterpret_cast<dispatch_queue_t>(static_cast<Object *>(queue));
}

const char *dispatch_queue_get_label(dispatch_queue_t queue) noexcept {
    Queue *q = checkedQueue(queue, "dispatch_queue_get_label", __LINE__);
    return q != nullptr ? q->label : "";
}

dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long) noexcept {
    return reinterpret_cast<dispatch_queue_t>(static_cast<Object *>(globalQueue(priority)));
}

void dispatch_async_f(dispatch_queue_t queue, void *context, dispatch_function_t work) noexcept {
    Queue *q = checkedQueue(queue, "dispatch_async_f", __LINE__);
    if (q == nullptr) return;
    if (work == nullptr) {
        logError("dispatch_async_f", __LINE__, "work is NULL");
        return;
    }
    enqueue(q, work, context);
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) noexcept {
    Queue *q = checkedQueue(queue, "dispatch_async", __LINE__);
    if (q == nullptr) return;
    if (block == nullptr) {
        logError("dispatch_async", __LINE__, "block is NULL");
        return;
    }
    enqueue(q, invokeAndReleaseBlock, reinterpret_cast<void *>(copyBlock(block)));
}

void dispatch_sync_f(dispatch_queue_t queue, void *context, dispatch_function_t work) noexcept {
    Queue *q = checkedQueue(queue, "dispatch_sync_f", __LINE__);
    if (q == nullptr) return;
    if (work == nullptr) {
        logError("dispatch_sync_f", __LINE__, "work is NULL");
        return;
    }
    Queue *outer = tCurrentQueue;
    if (q->concurrent) {
        tCurrentQueue = q;
        work(context);
        tCurrentQueue = outer;
        return;
    }
    if (outer == q) {
        char message[160];
        snprintf(message, sizeof message,
                 "BUG: dispatch_sync onto the queue \"%s\" that runs the caller would deadlock", q->label);
        fatal("dispatch_sync", __LINE__, message);
    }
    SyncTurn *turn = nullptr;
    bool inline_ = false;
    {
        Locked locked(&q->lock);
        if (!q->active && q->suspended == 0 && q->items.empty()) {
            q->active = true;  // the caller is the queue's drain for this item
            inline_ = true;
        } else {
            turn = new SyncTurn;
            q->items.push_back({nullptr, nullptr, turn});
            scheduleDrainLocked(q);
        }
    }
    if (!inline_) {
        pthread_mutex_lock(&turn->lock);
        while (turn->state != 1) pthread_cond_wait(&turn->changed, &turn->lock);
        pthread_mutex_unlock(&turn->lock);
    }
    tCurrentQueue = q;
    work(context);
    tCurrentQueue = outer;
    if (inline_) {
        Locked locked(&q->lock);
        q->active = false;
        scheduleDrainLocked(q);
        return;
    }
    pthread_mutex_lock(&turn->lock);
    turn->state = 2;
    pthread_cond_broadcast(&turn->changed);
    pthread_mutex_unlock(&turn->lock);
    releaseTurn(turn);
}

void dispatch_sync(dispatch_queue_t queue, dispatch_block_t block) noexcept {
    if (block == nullptr) {
        logError("dispatch_sync", __LINE__, "block is NULL");
        return;
    }
    // The block runs before this call returns, so it needs no copy.
    dispatch_sync_f(queue, reinterpret_cast<void *>(block), invokeBlock);
}

void dispatch_after_f(dispatch_time_t when, dispatch_queue_t queue, void *context, dispatch_function_t work) noexcept {
    Queue *q = checkedQueue(queue, "dispatch_after_f", __LINE__);
    if (q == nullptr) return;
    if (work == nullptr) {
        logError("dispatch_after_f", __LINE__, "work is NULL");
        return;
    }
    if (when == DISPATCH_TIME_FOREVER) return;
    Timers &t = timers();
    retainObject(q);
    Locked locked(&t.lock);
    startTimerThreadLocked(t);
    t.after.emplace(deadlineOf(when), AfterItem{q, work, context});
    pthread_cond_signal(&t.changed);
}

void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block) noexcept {
    if (block == nullptr) {
        logError("dispatch_after", __LINE__, "block is NULL");
        return;
    }
    if (when == DISPATCH_TIME_FOREVER || checkedQueue(queue, "dispatch_after", __LINE__) == nullptr) return;
    dispatch_after_f(when, queue, reinterpret_cast<void *>(copyBlock(block)), invokeAndReleaseBlock);
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t, unsigned long,
                                         dispatch_queue_t queue) noexcept {
    if (type != &_dispatch_source_type_timer && type != &_dispatch_source_type_data_add) {
        logError("dispatch_source_create", __LINE__, "unknown source type %p", static_cast<const void *>(type));
        return nullptr;
    }
    Queue *target = queue != nullptr ? checkedQueue(queue, "dispatch_source_create", __LINE__) : globalQueue(0);
    if (target == nullptr) return nullptr;
    Source *source = new (std::nothrow) Source(type, target);
    if (source == nullptr) return nullptr;
    retainObject(target);
    return reinterpret_cast<dispatch_source_t>(static_cast<Object *>(source));
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval, uint64_t) noexcept {
    Source *s = checkedSource(source, "dispatch_source_set_timer", __LINE__);
    if (s == nullptr) return;
    if (!s->type->timer) {
        logError("dispatch_source_set_timer", __LINE__, "source %p is not a timer source", static_cast<void *>(s));
        return;
    }
    Timers &t = timers();
    Source *released[2] = {};
    {
        Locked locked(&t.lock);
        if (s->cancelled) return;
        released[0] = fireIfDueLocked(t, s, monotonicNow());
        released[1] = setTimerLocked(t, s, start, interval);
    }
    for (Source *r : released)
        if (r != nullptr) releaseObject(r);
}

long _dispatch_source_timer_rearm(dispatch_source_t source, dispatch_time_t start, const uint64_t *onlyIfFirings,
                                  int discard, uint64_t *firingsOut) noexcept {
    Source *s = checkedSource(source, "_dispatch_source_timer_rearm", __LINE__);
    if (s == nullptr || !s->type->timer) return -1;
    Timers &t = timers();
    Source *released[2] = {};
    long result = 0;
    {
        Locked locked(&t.lock);
        released[0] = fireIfDueLocked(t, s, monotonicNow());
        if (onlyIfFirings == nullptr || *onlyIfFirings == s->firings) {
            if (s->cancelled) {
                s->deadline = start == DISPATCH_TIME_FOREVER ? DISPATCH_TIME_FOREVER : deadlineOf(start);
            } else {
                released[1] = setTimerLocked(t, s, start, 0);
            }
            result = 1;
        }
        if (discard) {
            s->pending = 0;
            pthread_t self = pthread_self();
            while (s->handlersRunning > 0 && !pthread_equal(s->handlerThread, self))
                pthread_cond_wait(&t.handlerDone, &t.lock);
        }
        if (firingsOut != nullptr) *firingsOut = s->firings;
    }
    for (Source *r : released)
        if (r != nullptr) releaseObject(r);
    return result;
}

int _dispatch_source_is_timer(dispatch_source_t source) noexcept {
    Object *o = reinterpret_cast<Object *>(source);
    return o != nullptr && o->kind == Kind::Source && static_cast<Source *>(o)->type->timer;
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) noexcept {
    setHandler(source, "dispatch_source_set_event_handler_f", __LINE__, &Source::eventBlock, &Source::eventFunction,
               nullptr, handler);
}

void dispatch_source_set_cancel_handler_f(dispatch_source_t source, dispatch_function_t handler) noexcept {
    setHandler(source, "dispatch_source_set_cancel_handler_f", __LINE__, &Source::cancelBlock, &Source::cancelFunction,
               nullptr, handler);
}

void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler) noexcept {
    setHandler(source, "dispatch_source_set_event_handler", __LINE__, &Source::eventBlock, &Source::eventFunction,
               handler, nullptr);
}

void dispatch_source_set_cancel_handler(dispatch_source_t source, dispatch_block_t handler) noexcept {
    setHandler(source, "dispatch_source_set_cancel_handler", __LINE__, &Source::cancelBlock, &Source::cancelFunction,
               handler, nullptr);
}

void dispatch_source_cancel(dispatch_source_t source) noexcept {
    Source *s = checkedSource(source, "dispatch_source_cancel", __LINE__);
    if (s == nullptr) return;
    Timers &t = timers();
    Source *released;
    {
        Locked locked(&t.lock);
        if (s->cancelled) return;
        s->cancelled = true;
        s->pending = 0;
        released = disarmLocked(t, s);
        scheduleDeliveryLocked(s);
    }
    if (released != nullptr) releaseObject(released);
}

long dispatch_source_testcancel(dispatch_source_t source) noexcept {
    Source *s = checkedSource(source, "dispatch_source_testcancel", __LINE__);
    if (s == nullptr) return 0;
    Locked locked(&timers().lock);
    return s->cancelled ? 1 : 0;
}

uintptr_t dispatch_source_get_data(dispatch_source_t source) noexcept {
    Source *s = checkedSource(source, "dispatch_source_get_data", __LINE__);
    if (s == nullptr) return 0;
    Locked locked(&timers().lock);
    return static_cast<uintptr_t>(s->data);
}

void dispatch_source_merge_data(dispatch_source_t source, uintptr_t value) noexcept {
    Source *s = checkedSource(source, "dispatch_source_merge_data", __LINE__);
    if (s == nullptr) return;
    if (s->type->timer) {
        logError("dispatch_source_merge_data", __LINE__, "source %p is a timer source", static_cast<void *>(s));
        return;
    }
    if (value == 0) return;
    Locked locked(&timers().lock);
    if (s->cancelled) return;
    s->pending += value;
    scheduleDeliveryLocked(s);
}

dispatch_semaphore_t dispatch_semaphore_create(long value) noexcept {
    if (value < 0) {
        logError("dispatch_semaphore_create", __LINE__, "value %ld is negative", value);
        return nullptr;
    }
    return reinterpret_cast<dispatch_semaphore_t>(static_cast<Object *>(new (std::nothrow) Semaphore(value)));
}

long dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t timeout) noexcept {
    auto *s = checkedKind<Semaphore>(semaphore, Kind::Semaphore, "dispatch_semaphore_wait", __LINE__, "semaphore");
    if (s == nullptr) return -1;
    uint64_t deadline = deadlineOf(timeout);
    Locked locked(&s->lock);
    s->waiters++;
    while (s->value <= 0) {
        if (!waitUntil(&s->changed, &s->lock, deadline) && s->value <= 0) {
            s->waiters--;
            return -1;
        }
    }
    s->waiters--;
    s->value--;
    return 0;
}

long dispatch_semaphore_signal(dispatch_semaphore_t semaphore) noexcept {
    auto *s = checkedKind<Semaphore>(semaphore, Kind::Semaphore, "dispatch_semaphore_signal", __LINE__, "semaphore");
    if (s == nullptr) return 0;
    Locked locked(&s->lock);
    s->value++;
    if (s->waiters == 0) return 0;
    pthread_cond_signal(&s->changed);
    return 1;
}

dispatch_group_t dispatch_group_create(void) noexcept {
    return reinterpret_cast<dispatch_group_t>(static_cast<Object *>(new (std::nothrow) Group));
}

void dispatch_group_enter(dispatch_group_t group) noexcept {
    auto *g = checkedKind<Group>(group, Kind::Group, "dispatch_group_enter", __LINE__, "group");
    if (g == nullptr) return;
    Locked locked(&g->lock);
    g->count++;
}

void dispatch_group_leave(dispatch_group_t group) noexcept {
    auto *g = checkedKind<Group>(group, Kind::Group, "dispatch_group_leave", __LINE__, "group");
    if (g == nullptr) return;
    std::vector<Notify> ready;
    {
        Locked locked(&g->lock);
        if (g->count == 0) {
            logError("dispatch_group_leave", __LINE__, "group %p left more often than entered", static_cast<void *>(g));
            return;
        }
        if (--g->count > 0) return;
        pthread_cond_broadcast(&g->empty);
        ready.swap(g->notifications);
    }
    for (const Notify &n : ready) {
        enqueue(n.queue, n.function, n.context);
        releaseObject(n.queue);
    }
}

long dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout) noexcept {
    auto *g = checkedKind<Group>(group, Kind::Group, "dispatch_group_wait", __LINE__, "group");
    if (g == nullptr) return -1;
    uint64_t deadline = deadlineOf(timeout);
    Locked locked(&g->lock);
    while (g->count > 0)
        if (!waitUntil(&g->empty, &g->lock, deadline) && g->count > 0) return -1;
    return 0;
}

void dispatch_group_async_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                            dispatch_function_t work) noexcept {
    auto *g = checkedKind<Group>(group, Kind::Group, "dispatch_group_async_f", __LINE__, "group");
    Queue *q = checkedQueue(queue, "dispatch_group_async_f", __LINE__);
    if (g == nullptr || q == nullptr || work == nullptr) return;
    dispatch_group_enter(group);
    retainObject(g);
    enqueue(q, runGroupItem, new GroupItem{g, work, context});
}

void dispatch_group_notify_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                             dispatch_function_t work) noexcept {
    auto *g = checkedKind<Group>(group, Kind::Group, "dispatch_group_notify_f", __LINE__, "group");
    Queue *q = checkedQueue(queue, "dispatch_group_notify_f", __LINE__);
    if (g == nullptr || q == nullptr || work == nullptr) return;
    {
        Locked locked(&g->lock);
        if (g->count > 0) {
            retainObject(q);
            g->notifications.push_back({q, work, context});
            return;
        }
    }
    enqueue(q, work, context);
}

void dispatch_group_async(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t block) noexcept {
    if (block == nullptr) return;
    dispatch_group_async_f(group, queue, reinterpret_cast<void *>(copyBlock(block)), invokeAndReleaseBlock);
}

void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t block) noexcept {
    if (block == nullptr) return;
    dispatch_group_notify_f(group, queue, reinterpret_cast<void *>(copyBlock(block)), invokeAndReleaseBlock);
}

}  // extern "C"
