// SPDX-License-Identifier: Apache-2.0
// The buffer queue: a doubly linked list of retained buffers under one
// recursive mutex, plus a list of triggers tested after every change.
//
// Lifetime.  Every call that runs client code while it works (validation,
// trigger, reset and for-each callbacks) holds a reference of its own on the
// queue for its whole length, so a callback that releases the client's last
// reference cannot free the queue under the call.  Finalization then happens
// when that call lets go; a queue whose last client reference went inside a
// trigger callback says so in the log from _SVBufferQueueFinalize.
//
// The inside-trigger-callback flag is read and written only with the mutex
// held.  Since callbacks run with the mutex held, a call that finds the flag
// set under the mutex comes from the callback's own thread; other threads
// simply wait for the callback to finish and are never refused.
//
// Duration.  The queue's duration is the left fold of SVTimeAdd over the
// buffers' durations, head to tail, from kSVTimeZero; the duration triggers
// need it after every change, and folding the whole queue each time made
// them linear in its length.  For the sample-buffer records, whose
// durations cannot change while queued except by invalidation, the queue
// keeps a running integer sum of the durations that are "plain" (valid and
// nothing else, timescale above 0, epoch 0, value above 0) and share one
// timescale.  When every buffer is in that sum and none has been
// invalidated, the fold is exactly {sum, timescale, valid, epoch 0}: adding
// two such times of one timescale converts nothing, rounds nothing and keeps
// epoch 0, and with all values positive no partial sum can overflow when the
// whole sum fits.  In every other case the fold is computed as before.
//
// Nodes are recycled through a short free list, so a queue in a steady
// producer/consumer rhythm allocates nothing per buffer.
//
// With the ready-made records the queue reads the common sample buffer's
// sort key and duration from its fields instead of through the getters,
// and compares times inline; whatever is not the common case goes through
// the getters and SVTimeCompare, so the answers are theirs (see "reading
// sample buffers directly" below).
//
// The cached least and greatest presentation stamps are only ever read by
// the two stamp-change triggers, and with the buffers' stamps as they were
// they always equal a scan of the buffers present after the last change.
// So while no such trigger is installed the queue stops maintaining them
// (a dequeue would otherwise rescan every buffer) and marks them stale;
// installing one of those triggers scans once and keeps them from then on.

#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVSampleBuffer.h>
#include <XPLog/XPLog.h>

#include <new>
#include <vector>

#include "core/SVLog.h"
#include "core/SVMutex.h"
#include "core/SVObject.h"
#include "samples/SVSampleBufferInternal.h"
#include "time/SVTimeInternal.h"

SV_LOG_MODULE("Sorvel/Sources/SVBufferQueue");

// Log identities the compiler cannot give: the names these internal sites
// report (see core/SVLog.h).
constexpr struct {
    sorvel::SVLogSite modifyFromTrigger{"_SVBufferQueueDequeueAndRetainLocked", 0};
    sorvel::SVLogSite finalizeFromTrigger{"_SVBufferQueueFinalize", 0};
} kLogSites;

namespace {

struct Node {
    Node *prev;
    Node *next;
    SVBufferRef buffer;     // retained
    int64_t durationValue;  // counted in the queue's duration sum when inSum
    bool inSum;
};

}  // namespace

struct opaqueSVBufferQueueTriggerToken {
    opaqueSVBufferQueueTriggerToken *prev;
    opaqueSVBufferQueueTriggerToken *next;
    SVBufferQueueTriggerCallback callback;
    void *refcon;
    SVBufferQueueTriggerCondition condition;
    SVTime time;
    int32_t threshold;
    // Set while the install call runs the new trigger's callback.  A
    // removal then only unlinks the record and marks it; the install call
    // frees it afterwards, so it can tell that the token it would hand back
    // is gone (the address cannot have been reused meanwhile).
    bool installing;
    bool removedWhileInstalling;
};

namespace {

using Trigger = opaqueSVBufferQueueTriggerToken;

struct TriggerList {
    // The installed triggers, doubly linked.
    Trigger *head;
    Trigger *tail;
};

// Nodes kept for reuse beyond this many are freed.
constexpr int kMaxSpareNodes = 64;

}  // namespace

namespace {
class KeepAlive;
}

struct OpaqueSVBufferQueue {
    CFRuntimeBase base;
    SVBufferCallbacks callbacks;
    SVBufferValidationCallback validation;
    void *validationRefcon;
    int32_t capacity;  // 0 or less: unbounded
    XPMutex mutex;
    bool mutexReady;  // finalize copes with a half-built queue
    bool endOfData;
    bool wasReset;
    bool insideTriggerCallback;
    bool releasedInsideTriggerCallback;
    Node *head;
    Node *tail;
    CFIndex count;
    TriggerList *triggers;
    SVTime minPresentationTimeStamp;  // all zero when unknown
    SVTime maxPresentationTimeStamp;
    bool extremesStale;       // the two above need a rescan before use
    int32_t extremeTriggers;  // installed triggers of conditions 5 and 6
    Node *spareNodes;
    int spareNodeCount;
    // The running duration sum (see "Duration" below); only kept for the
    // sample-buffer callback records.
    bool sumsDurations;
    int32_t sumTimescale;   // timescale of the buffers in the sum
    CFIndex sumCount;       // buffers in the sum
    CFIndex unsummedCount;  // buffers whose duration is not in the sum
    __int128 durationSum;   // their values; cannot overflow
    // The process's invalidation count at which no queued buffer was found
    // invalidated; UINT64_MAX before the first look.
    uint64_t invalidationsChecked;
    // Every callback in the record is one of the library's own: then only
    // trigger and validation callbacks run client code.
    bool ownCallbacks;
    // The compare callback is the sorted record's: enqueue reads the sort
    // keys itself.
    bool sortsByOutputTime;
    // The keep-alive of the call that holds the lock, for code under it
    // that is about to run client code; NULL outside a call that set it.
    KeepAlive *activeKeepAlive;
};

namespace {

void bufferQueueFinalize(CFTypeRef cf) noexcept;

const CFRuntimeClass kSVBufferQueueClass = {
    0, "SVBufferQueue", nullptr, nullptr, bufferQueueFinalize, nullptr, nullptr, nullptr, nullptr,
};

constinit sorvel::SVRuntimeClass<OpaqueSVBufferQueue> gSVBufferQueueClass{kSVBufferQueueClass};

using sorvel::time::kInvalid;

// ---- locking and lifetime ----------------------------------------------------------

// A reference held for the length of a call that runs client code, which
// may release the client's last one.  Taken at once, or (for the calls of
// the hot path, which seldom run client code) only when client code is
// about to run: two atomic operations per call were a fifth of the cost of
// a sorted enqueue and dequeue.
class KeepAlive {
public:
    enum When { kNow, kWhenClientCodeRuns };
    explicit KeepAlive(SVBufferQueueRef queue, When when = kNow) noexcept : queue_(queue) {
        if (when == kNow) hold();
    }
    ~KeepAlive() {
        if (held_) CFRelease(queue_);
    }
    void hold() noexcept {
        if (held_) return;
        CFRetain(queue_);
        held_ = true;
    }
    KeepAlive(const KeepAlive &) = delete;
    KeepAlive &operator=(const KeepAlive &) = delete;

private:
    SVBufferQueueRef queue_;
    bool held_ = false;
};

// Makes a call's keep-alive reachable from the trigger calls under the
// lock, and gives back the enclosing call's (the lock is recursive) on
// exit.  Declared after the lock, so it ends while the lock is still held.
class ActiveCall {
public:
    ActiveCall(SVBufferQueueRef queue, KeepAlive &keepAlive) noexcept
        : queue_(queue), previous_(queue->activeKeepAlive) {
        queue->activeKeepAlive = &keepAlive;
    }
    ~ActiveCall() { queue_->activeKeepAlive = previous_; }
    ActiveCall(const ActiveCall &) = delete;
    ActiveCall &operator=(const ActiveCall &) = delete;

private:
    SVBufferQueueRef queue_;
    KeepAlive *previous_;
};

// How the hot-path calls start: unheld when only the library's own
// callbacks run under the lock.
KeepAlive::When keepAliveFor(SVBufferQueueRef queue) noexcept {
    return queue->ownCallbacks ? KeepAlive::kWhenClientCodeRuns : KeepAlive::kNow;
}

// ---- memory ------------------------------------------------------------------------

CFAllocatorRef allocatorOf(SVBufferQueueRef queue) noexcept {
    return CFGetAllocator(queue);
}

Node *takeNode(SVBufferQueueRef queue) noexcept {
    if (Node *node = queue->spareNodes) {
        queue->spareNodes = node->next;
        queue->spareNodeCount--;
        return node;
    }
    return static_cast<Node *>(CFAllocatorAllocate(allocatorOf(queue), sizeof(Node), 0));
}

void giveBackNode(SVBufferQueueRef queue, Node *node) noexcept {
    if (queue->spareNodeCount < kMaxSpareNodes) {
        node->next = queue->spareNodes;
        queue->spareNodes = node;
        queue->spareNodeCount++;
        return;
    }
    CFAllocatorDeallocate(allocatorOf(queue), node);
}

// ---- the callbacks -----------------------------------------------------------------

SVTime getPresentationTimeStamp(SVBufferQueueRef queue, SVBufferRef buffer) noexcept {
    return queue->callbacks.getPresentationTimeStamp(buffer, queue->callbacks.refcon);
}

// ---- scans over the buffers (lock held) --------------------------------------------------

SVTime sampleBufferDuration(SVBufferRef buffer, void *) noexcept;

bool isInvalidatedSampleBuffer(SVBufferRef buffer) noexcept {
    return reinterpret_cast<const OpaqueSVSampleBuffer *>(buffer)->invalidated != 0;
}

// ---- reading sample buffers directly ---------------------------------------------------
// With the ready-made records the queue's getters are the library's own, so
// for the common sample buffer the queue reads the fields those getters
// would answer with instead of calling them: a sorted enqueue reads two
// sort keys per comparison, and the getters' checks and adjustments were
// two thirds of its cost.  Every other buffer goes through the getter, so
// each answer is exactly the getter's; only the cost differs.

// The buffer's fields when it is a sample buffer not invalidated, else NULL.
const OpaqueSVSampleBuffer *usableSampleBuffer(SVBufferRef buffer) noexcept {
    const OpaqueSVSampleBuffer *b = sorvel::gSVSampleBufferClass.checked(buffer);
    return b != nullptr && !b->invalidated ? b : nullptr;
}

// SVSampleBufferGetOutputPresentationTimeStamp, its common case read here.
SVTime sampleBufferOutputPresentationTime(SVBufferRef buffer) noexcept {
    SVTime plain;
    if (const OpaqueSVSampleBuffer *b = usableSampleBuffer(buffer);
        b != nullptr && sorvel::SVSampleBufferPlainOutputPresentationTime(b, plain))
        return plain;
    return SVSampleBufferGetOutputPresentationTimeStamp(static_cast<SVSampleBufferRef>(const_cast<void *>(buffer)));
}

bool isPlainDuration(const SVTime &duration) noexcept {
    return duration.flags == kSVTimeFlags_Valid && duration.timescale > 0 && duration.epoch == 0 && duration.value > 0;
}

// SVSampleBufferGetDuration where the running sum needs it.  An image
// buffer's is its own; a data buffer of one sample with one entry has that
// entry's duration times 1, which is the entry's duration itself when it
// is plain (the only durations the sum takes).
SVTime sampleBufferDurationForSum(SVBufferRef buffer) noexcept {
    if (const OpaqueSVSampleBuffer *b = usableSampleBuffer(buffer)) {
        if (b->kind == kSVSampleBufferKind_ImageBuffer) return b->imageTiming.duration;
        const SVSampleTimingInfo *entry = sorvel::SVSampleBufferSoleTimingEntry(b);
        if (entry != nullptr && b->numSamples == 1 && isPlainDuration(entry->duration)) return entry->duration;
    }
    return sampleBufferDuration(buffer, nullptr);
}

// Adds a new node's duration to the running sum when it can be (lock held).
void countDurationLocked(SVBufferQueueRef queue, Node *node) noexcept {
    node->inSum = false;
    if (!queue->sumsDurations) return;
    const SVTime duration = sampleBufferDurationForSum(node->buffer);
    const bool plain = isPlainDuration(duration);
    if (plain && (queue->sumCount == 0 || duration.timescale == queue->sumTimescale)) {
        queue->sumTimescale = duration.timescale;
        queue->sumCount++;
        queue->durationSum += duration.value;
        node->durationValue = duration.value;
        node->inSum = true;
    } else {
        queue->unsummedCount++;
    }
}

void uncountDurationLocked(SVBufferQueueRef queue, const Node *node) noexcept {
    if (!queue->sumsDurations) return;
    if (node->inSum) {
        queue->sumCount--;
        queue->durationSum -= node->durationValue;
    } else {
        queue->unsummedCount--;
    }
}

// Whether no queued buffer is invalidated; remembers the invalidation
// count it looked at when none is.
__attribute__((noinline)) bool noneInvalidatedLocked(SVBufferQueueRef queue, uint64_t invalidations) noexcept {
    for (Node *node = queue->head; node != nullptr; node = node->next)
        if (isInvalidatedSampleBuffer(node->buffer)) return false;
    queue->invalidationsChecked = invalidations;
    return true;
}

// The fold from the running sum, or false when it must be computed.
__attribute__((always_inline)) inline bool summedDurationLocked(SVBufferQueueRef queue, SVTime *durationOut) noexcept {
    if (!queue->sumsDurations || queue->unsummedCount != 0 || queue->durationSum > INT64_MAX) return false;
    // A buffer's duration changes only when it is invalidated; a buffer
    // already invalidated when queued is not in the sum.  So the walk is
    // needed only after some buffer in the process was invalidated.
    const uint64_t invalidations = sorvel::SVSampleBufferInvalidationCount();
    if (invalidations != queue->invalidationsChecked && !noneInvalidatedLocked(queue, invalidations)) return false;
    *durationOut = queue->sumCount == 0
                       ? kSVTimeZero
                       : SVTime{static_cast<int64_t>(queue->durationSum), queue->sumTimescale, kSVTimeFlags_Valid, 0};
    return true;
}

__attribute__((noinline)) SVTime foldedDurationLocked(SVBufferQueueRef queue) noexcept {
    SVTime total = kSVTimeZero;
    for (Node *node = queue->head; node != nullptr; node = node->next)
        total = SVTimeAdd(total, queue->callbacks.getDuration(node->buffer, queue->callbacks.refcon));
    return total;
}

__attribute__((always_inline)) inline SVTime durationLocked(SVBufferQueueRef queue) noexcept {
    if (queue->callbacks.getDuration == nullptr) return kInvalid;
    SVTime summed;
    if (summedDurationLocked(queue, &summed)) return summed;
    return foldedDurationLocked(queue);
}

// The extreme valid time among the buffers by `better` (-1: least, 1:
// greatest); the first met wins a tie.  kSVTimeInvalid when none is valid.
SVTime extremeLocked(SVBufferQueueRef queue, SVBufferGetTimeCallback get, int32_t better) noexcept {
    SVTime best = kSVTimeInvalid;
    if (get == nullptr) return best;
    bool found = false;
    for (Node *node = queue->head; node != nullptr; node = node->next) {
        SVTime time = get(node->buffer, queue->callbacks.refcon);
        if (!SVTIME_IS_VALID(time)) continue;
        if (!found || sorvel::time::compare(time, best) == better) {
            best = time;
            found = true;
        }
    }
    return best;
}

SVTime minPresentationLocked(SVBufferQueueRef queue) noexcept {
    return extremeLocked(queue, queue->callbacks.getPresentationTimeStamp, -1);
}

SVTime maxPresentationLocked(SVBufferQueueRef queue) noexcept {
    return extremeLocked(queue, queue->callbacks.getPresentationTimeStamp, 1);
}

void recordExtremesLocked(SVBufferQueueRef queue) noexcept {
    queue->maxPresentationTimeStamp = maxPresentationLocked(queue);
    queue->minPresentationTimeStamp = minPresentationLocked(queue);
    queue->extremesStale = false;
}

// Brings stale cached stamps up to the buffers present now; called before
// a change, when they stand for the buffers after the previous one.
void refreshExtremesLocked(SVBufferQueueRef queue) noexcept {
    if (queue->extremesStale) recordExtremesLocked(queue);
}

bool isExtremeCondition(SVBufferQueueTriggerCondition condition) noexcept {
    return condition == kSVBufferQueueTrigger_WhenMaxPresentationTimeStampChanges ||
           condition == kSVBufferQueueTrigger_WhenMinPresentationTimeStampChanges;
}

// ---- triggers (lock held) ------------------------------------------------------------

__attribute__((always_inline)) inline bool triggerHoldsLocked(SVBufferQueueRef queue, const Trigger *trigger) noexcept {
    switch (trigger->condition) {
        case kSVBufferQueueTrigger_WhenDurationBecomesLessThan:
            return sorvel::time::compare(durationLocked(queue), trigger->time) < 0;
        case kSVBufferQueueTrigger_WhenDurationBecomesLessThanOrEqualTo:
            return sorvel::time::compare(durationLocked(queue), trigger->time) <= 0;
        case kSVBufferQueueTrigger_WhenDurationBecomesGreaterThan:
            return sorvel::time::compare(durationLocked(queue), trigger->time) > 0;
        case kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo:
            return sorvel::time::compare(durationLocked(queue), trigger->time) >= 0;
        // An installed trigger of either of the next two kinds keeps the cached
        // stamps fresh, so they can be read as they are.
        case kSVBufferQueueTrigger_WhenMaxPresentationTimeStampChanges:
            return sorvel::time::compare(maxPresentationLocked(queue), queue->maxPresentationTimeStamp) != 0;
        case kSVBufferQueueTrigger_WhenMinPresentationTimeStampChanges:
            return sorvel::time::compare(minPresentationLocked(queue), queue->minPresentationTimeStamp) != 0;
        case kSVBufferQueueTrigger_WhenDataBecomesReady:
            return queue->callbacks.isDataReady(queue->head != nullptr ? queue->head->buffer : nullptr,
                                                queue->callbacks.refcon);
        case kSVBufferQueueTrigger_WhenEndOfDataReached:
            return queue->endOfData && queue->count == 0;
        case kSVBufferQueueTrigger_WhenReset:
            return queue->wasReset;
        case kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan:
            return queue->count < trigger->threshold;
        case kSVBufferQueueTrigger_WhenBufferCountBecomesGreaterThan:
            return queue->count > trigger->threshold;
        default:
            return false;
    }
}

// Calls a trigger's callback and notes a queue whose last client reference
// went while it ran: only the running call's own reference is left.  The
// count is the only record of that moment (see DESIGN.md, the buffer
// queue's retain count).
void callTriggerLocked(SVBufferQueueRef queue, Trigger *trigger) noexcept {
    if (queue->activeKeepAlive != nullptr) queue->activeKeepAlive->hold();
    trigger->callback(trigger->refcon, trigger);
    if (CFGetRetainCount(queue) == 1) queue->releasedInsideTriggerCallback = true;
}

// Tests every trigger in installation order and fires those that hold.
// Callbacks cannot install or remove triggers (the flag refuses it), so the
// list stays as it is during the walk.
void fireTriggersLocked(SVBufferQueueRef queue) noexcept {
    for (Trigger *trigger = queue->triggers->head; trigger != nullptr; trigger = trigger->next) {
        if (!triggerHoldsLocked(queue, trigger) || trigger->callback == nullptr) continue;
        queue->insideTriggerCallback = true;
        callTriggerLocked(queue, trigger);
        queue->insideTriggerCallback = false;
    }
}

bool isInstalledLocked(SVBufferQueueRef queue, const Trigger *token) noexcept {
    for (Trigger *trigger = queue->triggers->head; trigger != nullptr; trigger = trigger->next)
        if (trigger == token) return true;
    return false;
}

// ---- taking buffers out (lock held) ------------------------------------------------------

SVBufferRef unlinkHeadLocked(SVBufferQueueRef queue) noexcept {
    Node *node = queue->head;
    queue->head = node->next;
    if (queue->head != nullptr)
        queue->head->prev = nullptr;
    else
        queue->tail = nullptr;
    queue->count--;
    uncountDurationLocked(queue, node);
    SVBufferRef buffer = node->buffer;
    giveBackNode(queue, node);
    return buffer;
}

SVBufferRef dequeueAndRetainLocked(SVBufferQueueRef queue, SVBufferGetBooleanCallback predicate) noexcept {
    if (queue->insideTriggerCallback) {
        SV_LOG_SITE(kLogSites.modifyFromTrigger, 3, "Can Not Modify Queue From TriggerCallback");
        return nullptr;
    }
    if (queue->head == nullptr) return nullptr;
    if (predicate != nullptr && !predicate(queue->head->buffer, queue->callbacks.refcon)) return nullptr;
    if (queue->extremeTriggers > 0) refreshExtremesLocked(queue);
    SVBufferRef buffer = unlinkHeadLocked(queue);  // the queue's reference goes to the caller
    fireTriggersLocked(queue);
    if (queue->extremeTriggers > 0)
        recordExtremesLocked(queue);
    else
        queue->extremesStale = true;
    return buffer;
}

SVBufferRef dequeueAndRetain(SVBufferQueueRef queue, bool onlyIfReady) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return nullptr;
    KeepAlive keepAlive(queue, keepAliveFor(queue));
    sorvel::SVMutexGuard lock(&queue->mutex);
    ActiveCall active(queue, keepAlive);
    return dequeueAndRetainLocked(queue, onlyIfReady ? queue->callbacks.isDataReady : nullptr);
}

OSStatus resetLocked(SVBufferQueueRef queue, void (*callback)(SVBufferRef, void *), void *refcon) noexcept {
    if (queue->insideTriggerCallback) return kSVBufferQueueError_CannotModifyQueueFromTriggerCallback;
    if (queue->extremeTriggers > 0) refreshExtremesLocked(queue);
    while (queue->head != nullptr) {
        SVBufferRef buffer = queue->head->buffer;
        if (callback != nullptr) callback(buffer, refcon);
        // The callback may have emptied the queue itself (the lock is
        // recursive); take out only what is still there.
        if (queue->head != nullptr && queue->head->buffer == buffer) {
            unlinkHeadLocked(queue);
            CFRelease(buffer);
        }
    }
    queue->wasReset = true;
    queue->endOfData = false;
    fireTriggersLocked(queue);
    queue->wasReset = false;
    queue->minPresentationTimeStamp = kInvalid;
    queue->maxPresentationTimeStamp = kInvalid;
    queue->extremesStale = false;
    return 0;
}

OSStatus installTrigger(SVBufferQueueRef queue, SVBufferQueueTriggerCallback callback, void *refcon,
                        SVBufferQueueTriggerCondition condition, SVTime time, int32_t threshold,
                        SVBufferQueueTriggerToken *tokenOut) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVBufferQueueError_RequiredParameterMissing;
    KeepAlive keepAlive(queue);
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (queue->insideTriggerCallback) return kSVBufferQueueError_CannotModifyQueueFromTriggerCallback;
    if (condition == 0 || (callback == nullptr && tokenOut == nullptr))
        return kSVBufferQueueError_RequiredParameterMissing;
    const SVBufferCallbacks &callbacks = queue->callbacks;
    switch (condition) {
        case kSVBufferQueueTrigger_WhenDurationBecomesLessThan:
        case kSVBufferQueueTrigger_WhenDurationBecomesLessThanOrEqualTo:
        case kSVBufferQueueTrigger_WhenDurationBecomesGreaterThan:
        case kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo:
            if (!SVTIME_IS_NUMERIC(time) || callbacks.getDuration == nullptr)
                return kSVBufferQueueError_InvalidTriggerParameters;
            break;
        case kSVBufferQueueTrigger_WhenMaxPresentationTimeStampChanges:
        case kSVBufferQueueTrigger_WhenMinPresentationTimeStampChanges:
            if (callbacks.getPresentationTimeStamp == nullptr) return kSVBufferQueueError_InvalidTriggerParameters;
            break;
        case kSVBufferQueueTrigger_WhenDataBecomesReady:
            if (callbacks.isDataReady == nullptr) return kSVBufferQueueError_InvalidTriggerParameters;
            break;
        case kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan:
            if (threshold == 0) return kSVBufferQueueError_InvalidTriggerParameters;
            break;
        default:
            break;
    }
    auto *trigger = static_cast<Trigger *>(CFAllocatorAllocate(allocatorOf(queue), sizeof(Trigger), 0));
    if (trigger == nullptr) return kSVBufferQueueError_AllocationFailed;
    if (isExtremeCondition(condition)) {
        refreshExtremesLocked(queue);
        queue->extremeTriggers++;
    }
    // Appended at the tail: triggers are tested in installation order.
    *trigger = {queue->triggers->tail, nullptr, callback, refcon, condition, time, threshold, false, false};
    if (queue->triggers->tail != nullptr)
        queue->triggers->tail->next = trigger;
    else
        queue->triggers->head = trigger;
    queue->triggers->tail = trigger;
    if (tokenOut != nullptr) *tokenOut = trigger;
    // Called at once when it already holds, without the flag: installing is
    // not a change of the queue's contents, so the callback may remove the
    // trigger.  Then no token is handed back: *tokenOut becomes NULL.
    if (callback != nullptr && triggerHoldsLocked(queue, trigger)) {
        trigger->installing = true;
        callTriggerLocked(queue, trigger);
        trigger->installing = false;
        if (trigger->removedWhileInstalling) {
            CFAllocatorDeallocate(allocatorOf(queue), trigger);
            if (tokenOut != nullptr) *tokenOut = nullptr;
        }
    }
    return 0;
}

void bufferQueueFinalize(CFTypeRef cf) noexcept {
    SVBufferQueueRef queue = gSVBufferQueueClass.cast(cf);
    if (queue->insideTriggerCallback || queue->releasedInsideTriggerCallback)
        SV_LOG_SITE(kLogSites.finalizeFromTrigger, 3, "Invalid: Attempting to finalize a queue From TriggerCallback");
    CFAllocatorRef allocator = allocatorOf(queue);
    while (queue->head != nullptr) CFRelease(unlinkHeadLocked(queue));
    while (Node *node = queue->spareNodes) {
        queue->spareNodes = node->next;
        CFAllocatorDeallocate(allocator, node);
    }
    if (TriggerList *triggers = queue->triggers) {
        while (Trigger *trigger = triggers->head) {
            triggers->head = trigger->next;
            CFAllocatorDeallocate(allocator, trigger);
        }
        CFAllocatorDeallocate(allocator, triggers);
    }
    if (queue->mutexReady) XPMutexDestroy(&queue->mutex);
}

// ---- the ready-made callback records -------------------------------------------------------
// Thin adapters with the record's own signatures: calling the sample
// buffer's getters through a pointer of another type would be undefined.

SVSampleBufferRef asSampleBuffer(SVBufferRef buffer) noexcept {
    return static_cast<SVSampleBufferRef>(const_cast<void *>(buffer));
}

SVTime sampleBufferDecodeTimeStamp(SVBufferRef buffer, void *) noexcept {
    return SVSampleBufferGetDecodeTimeStamp(asSampleBuffer(buffer));
}

SVTime sampleBufferPresentationTimeStamp(SVBufferRef buffer, void *) noexcept {
    return SVSampleBufferGetPresentationTimeStamp(asSampleBuffer(buffer));
}

SVTime sampleBufferDuration(SVBufferRef buffer, void *) noexcept {
    return SVSampleBufferGetDuration(asSampleBuffer(buffer));
}

Boolean sampleBufferDataIsReady(SVBufferRef buffer, void *) noexcept {
    return SVSampleBufferDataIsReady(asSampleBuffer(buffer));
}

size_t sampleBufferTotalSampleSize(SVBufferRef buffer, void *) noexcept {
    return SVSampleBufferGetTotalSampleSize(asSampleBuffer(buffer));
}

CFComparisonResult sampleBufferCompareOutputPresentationTimeStamps(SVBufferRef buffer1, SVBufferRef buffer2,
                                                                   void *) noexcept {
    return sorvel::time::compare(SVSampleBufferGetOutputPresentationTimeStamp(asSampleBuffer(buffer1)),
                                 SVSampleBufferGetOutputPresentationTimeStamp(asSampleBuffer(buffer2)));
}

const SVBufferCallbacks kUnsortedSampleBufferCallbacks = {
    0,
    nullptr,
    sampleBufferDecodeTimeStamp,
    sampleBufferPresentationTimeStamp,
    sampleBufferDuration,
    sampleBufferDataIsReady,
    nullptr,
    nullptr,
    sampleBufferTotalSampleSize,
};

const SVBufferCallbacks kSortedByOutputPTSSampleBufferCallbacks = {
    0,
    nullptr,
    sampleBufferDecodeTimeStamp,
    sampleBufferPresentationTimeStamp,
    sampleBufferDuration,
    sampleBufferDataIsReady,
    sampleBufferCompareOutputPresentationTimeStamps,
    nullptr,
    sampleBufferTotalSampleSize,
};

template <typename Callback>
bool isOwn(Callback callback, Callback own) noexcept {
    return callback == nullptr || callback == own;
}

// Whether running the record's callbacks runs only library code (a copy of
// one of the records above, or of parts of them).
bool hasOnlyOwnCallbacks(const SVBufferCallbacks &callbacks) noexcept {
    const SVBufferCallbacks &own = kSortedByOutputPTSSampleBufferCallbacks;
    return isOwn(callbacks.getDecodeTimeStamp, own.getDecodeTimeStamp) &&
           isOwn(callbacks.getPresentationTimeStamp, own.getPresentationTimeStamp) &&
           isOwn(callbacks.getDuration, own.getDuration) && isOwn(callbacks.isDataReady, own.isDataReady) &&
           isOwn(callbacks.compare, own.compare) && isOwn(callbacks.getSize, own.getSize);
}

}  // namespace

extern "C" {

const SVBufferCallbacks *SVBufferQueueGetCallbacksForUnsortedSampleBuffers(void) noexcept {
    return &kUnsortedSampleBufferCallbacks;
}

const SVBufferCallbacks *SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(void) noexcept {
    return &kSortedByOutputPTSSampleBufferCallbacks;
}

CFTypeID SVBufferQueueGetTypeID(void) noexcept {
    return gSVBufferQueueClass.typeID();
}

OSStatus SVBufferQueueCreate(CFAllocatorRef allocator, int32_t capacity, const SVBufferCallbacks *callbacks,
                             SVBufferQueueRef *queueOut) noexcept {
    gSVBufferQueueClass.typeID();
    if (queueOut == nullptr) return kSVBufferQueueError_RequiredParameterMissing;
    *queueOut = nullptr;
    if (callbacks == nullptr) return kSVBufferQueueError_RequiredParameterMissing;
    if (callbacks->version != 0 || callbacks->getDuration == nullptr)
        return kSVBufferQueueError_InvalidBufferCallbacksStruct;
    auto *triggers = static_cast<TriggerList *>(CFAllocatorAllocate(allocator, sizeof(TriggerList), 0));
    if (triggers == nullptr) return kSVBufferQueueError_AllocationFailed;
    *triggers = {nullptr, nullptr};
    OpaqueSVBufferQueue *queue = gSVBufferQueueClass.create(allocator);
    if (!gSVBufferQueueClass.checked(queue)) {
        CFAllocatorDeallocate(allocator, triggers);
        return kSVBufferQueueError_AllocationFailed;
    }
    XPMutexInitRecursive(&queue->mutex);
    queue->mutexReady = true;
    queue->head = queue->tail = nullptr;
    queue->count = 0;
    queue->callbacks = *callbacks;
    queue->capacity = capacity;
    queue->triggers = triggers;
    queue->minPresentationTimeStamp = kInvalid;
    queue->maxPresentationTimeStamp = kInvalid;
    queue->sumsDurations = callbacks->getDuration == sampleBufferDuration;
    queue->invalidationsChecked = UINT64_MAX;
    queue->ownCallbacks = hasOnlyOwnCallbacks(*callbacks);
    queue->sortsByOutputTime = callbacks->compare == sampleBufferCompareOutputPresentationTimeStamps;
    *queueOut = queue;
    return 0;
}

OSStatus SVBufferQueueSetValidationCallback(SVBufferQueueRef queue, SVBufferValidationCallback callback,
                                            void *validationRefCon) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVBufferQueueError_RequiredParameterMissing;
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (queue->insideTriggerCallback) return kSVBufferQueueError_CannotModifyQueueFromTriggerCallback;
    queue->validationRefcon = callback != nullptr ? validationRefCon : nullptr;
    __atomic_store_n(&queue->validation, callback, __ATOMIC_RELEASE);
    return 0;
}

OSStatus SVBufferQueueEnqueue(SVBufferQueueRef queue, SVBufferRef buf) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || buf == nullptr) return kSVBufferQueueError_RequiredParameterMissing;
    KeepAlive keepAlive(queue, keepAliveFor(queue));
    SVBufferValidationCallback validation = nullptr;
    void *validationRefcon = nullptr;
    // Without a validation callback (the usual case) there is nothing to
    // read under the lock; the setter publishes the callback last, so one
    // load decides.
    if (__atomic_load_n(&queue->validation, __ATOMIC_ACQUIRE) != nullptr) {
        // Read together, so a concurrent change cannot pair one callback
        // with another's refcon.
        sorvel::SVMutexGuard lock(&queue->mutex);
        validation = queue->validation;
        validationRefcon = queue->validationRefcon;
    }
    if (validation != nullptr) {
        keepAlive.hold();
        OSStatus status = validation(queue, buf, validationRefcon);
        if (status != 0) return status;
    }
    sorvel::SVMutexGuard lock(&queue->mutex);
    ActiveCall active(queue, keepAlive);
    if (queue->insideTriggerCallback) return kSVBufferQueueError_CannotModifyQueueFromTriggerCallback;
    if (queue->endOfData) return kSVBufferQueueError_EnqueueAfterEndOfData;
    if (queue->capacity >= 1 && queue->count >= queue->capacity) return kSVBufferQueueError_QueueIsFull;

    if (queue->extremeTriggers > 0) refreshExtremesLocked(queue);

    // Insert after every buffer the new one does not compare strictly less
    // than: walk back from the tail while it does.
    Node *after = queue->tail;
    if (queue->sortsByOutputTime) {
        // The ready-made compare, read directly: the new buffer's key once,
        // and each passed buffer's afresh (it may have changed since it was
        // queued).  The same comparisons as calling it; only cheaper.
        const SVTime key = sampleBufferOutputPresentationTime(buf);
        while (after != nullptr && sorvel::time::compare(key, sampleBufferOutputPresentationTime(after->buffer)) == -1)
            after = after->prev;
    } else if (queue->callbacks.compare != nullptr) {
        while (after != nullptr && queue->callbacks.compare(buf, after->buffer, queue->callbacks.refcon) == -1)
            after = after->prev;
    }
    Node *node = takeNode(queue);
    if (node == nullptr) return kSVBufferQueueError_AllocationFailed;
    node->buffer = CFRetain(buf);
    node->prev = after;
    node->next = after != nullptr ? after->next : queue->head;
    if (node->next != nullptr)
        node->next->prev = node;
    else
        queue->tail = node;
    if (after != nullptr)
        after->next = node;
    else
        queue->head = node;
    queue->count++;
    countDurationLocked(queue, node);

    fireTriggersLocked(queue);

    if (queue->callbacks.getPresentationTimeStamp != nullptr && !queue->extremesStale) {
        SVTime time = getPresentationTimeStamp(queue, buf);
        if (!SVTIME_IS_VALID(queue->minPresentationTimeStamp)) {
            queue->minPresentationTimeStamp = time;
            queue->maxPresentationTimeStamp = time;
        } else if (SVTIME_IS_VALID(time)) {
            if (sorvel::time::compare(time, queue->maxPresentationTimeStamp) > 0)
                queue->maxPresentationTimeStamp = time;
            if (sorvel::time::compare(time, queue->minPresentationTimeStamp) < 0)
                queue->minPresentationTimeStamp = time;
        }
    }
    return 0;
}

SVBufferRef SVBufferQueueDequeueAndRetain(SVBufferQueueRef queue) noexcept {
    return dequeueAndRetain(queue, false);
}

SVBufferRef SVBufferQueueDequeueIfDataReadyAndRetain(SVBufferQueueRef queue) noexcept {
    return dequeueAndRetain(queue, true);
}

SVBufferRef SVBufferQueueGetHead(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return nullptr;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return queue->head != nullptr ? queue->head->buffer : nullptr;
}

SVItemCount SVBufferQueueGetBufferCount(SVBufferQueueRef queue) noexcept {
    // A status where a count belongs, as the interface has always done.
    if (!gSVBufferQueueClass.checked(queue)) return kSVBufferQueueError_RequiredParameterMissing;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return queue->count;
}

Boolean SVBufferQueueIsEmpty(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return true;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return queue->count == 0;
}

SVTime SVBufferQueueGetDuration(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return durationLocked(queue);
}

size_t SVBufferQueueGetTotalSize(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || queue->callbacks.getSize == nullptr) return 0;
    sorvel::SVMutexGuard lock(&queue->mutex);
    size_t total = 0;
    for (Node *node = queue->head; node != nullptr; node = node->next)
        total += queue->callbacks.getSize(node->buffer, queue->callbacks.refcon);
    return total;
}

SVTime SVBufferQueueGetFirstDecodeTimeStamp(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || queue->callbacks.getDecodeTimeStamp == nullptr) return kSVTimeInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (queue->head == nullptr) return kSVTimeInvalid;
    return queue->callbacks.getDecodeTimeStamp(queue->head->buffer, queue->callbacks.refcon);
}

SVTime SVBufferQueueGetFirstPresentationTimeStamp(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || queue->callbacks.getPresentationTimeStamp == nullptr)
        return kSVTimeInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (queue->head == nullptr) return kSVTimeInvalid;
    return getPresentationTimeStamp(queue, queue->head->buffer);
}

SVTime SVBufferQueueGetMinDecodeTimeStamp(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVTimeInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return extremeLocked(queue, queue->callbacks.getDecodeTimeStamp, -1);
}

SVTime SVBufferQueueGetMinPresentationTimeStamp(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVTimeInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return minPresentationLocked(queue);
}

SVTime SVBufferQueueGetMaxPresentationTimeStamp(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVTimeInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return maxPresentationLocked(queue);
}

SVTime SVBufferQueueGetEndPresentationTimeStamp(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || queue->callbacks.getPresentationTimeStamp == nullptr)
        return kSVTimeInvalid;
    sorvel::SVMutexGuard lock(&queue->mutex);
    SVTime end = kSVTimeInvalid;
    bool found = false;
    for (Node *node = queue->head; node != nullptr; node = node->next) {
        SVTime start = getPresentationTimeStamp(queue, node->buffer);
        if (!SVTIME_IS_VALID(start)) continue;
        SVTime candidate = SVTimeAdd(start, queue->callbacks.getDuration(node->buffer, queue->callbacks.refcon));
        if (!SVTIME_IS_VALID(candidate)) continue;
        if (!found || sorvel::time::compare(candidate, end) > 0) {
            end = candidate;
            found = true;
        }
    }
    return end;
}

OSStatus SVBufferQueueCallForEachBuffer(SVBufferQueueRef queue, OSStatus (*callback)(SVBufferRef buffer, void *refcon),
                                        void *refcon) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || callback == nullptr) return kSVBufferQueueError_RequiredParameterMissing;
    KeepAlive keepAlive(queue);
    sorvel::SVMutexGuard lock(&queue->mutex);
    // The callback may change the queue (the lock is recursive), so walk a
    // retained snapshot rather than the live list.
    std::vector<SVBufferRef> buffers;
    try {
        buffers.reserve(static_cast<size_t>(queue->count));
    } catch (const std::bad_alloc &) {
        return kSVBufferQueueError_AllocationFailed;
    }
    for (Node *node = queue->head; node != nullptr; node = node->next) buffers.push_back(CFRetain(node->buffer));
    OSStatus status = 0;
    for (SVBufferRef buffer : buffers) {
        if (status == 0) status = callback(buffer, refcon);
        CFRelease(buffer);
    }
    return status;
}

OSStatus SVBufferQueueMarkEndOfData(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVBufferQueueError_RequiredParameterMissing;
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (queue->insideTriggerCallback) return kSVBufferQueueError_CannotModifyQueueFromTriggerCallback;
    queue->endOfData = true;
    return 0;
}

Boolean SVBufferQueueContainsEndOfData(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return true;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return queue->endOfData;
}

Boolean SVBufferQueueIsAtEndOfData(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return true;
    sorvel::SVMutexGuard lock(&queue->mutex);
    return queue->endOfData && queue->count == 0;
}

OSStatus SVBufferQueueReset(SVBufferQueueRef queue) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) return kSVBufferQueueError_RequiredParameterMissing;
    KeepAlive keepAlive(queue);
    sorvel::SVMutexGuard lock(&queue->mutex);
    return resetLocked(queue, nullptr, nullptr);
}

OSStatus SVBufferQueueResetWithCallback(SVBufferQueueRef queue, void (*callback)(SVBufferRef buffer, void *refcon),
                                        void *refcon) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || callback == nullptr) return kSVBufferQueueError_RequiredParameterMissing;
    KeepAlive keepAlive(queue);
    sorvel::SVMutexGuard lock(&queue->mutex);
    return resetLocked(queue, callback, refcon);
}

OSStatus SVBufferQueueInstallTrigger(SVBufferQueueRef queue, SVBufferQueueTriggerCallback callback, void *triggerRefcon,
                                     SVBufferQueueTriggerCondition condition, SVTime time,
                                     SVBufferQueueTriggerToken *triggerTokenOut) noexcept {
    return installTrigger(queue, callback, triggerRefcon, condition, time, 0, triggerTokenOut);
}

OSStatus SVBufferQueueInstallTriggerWithIntegerThreshold(SVBufferQueueRef queue, SVBufferQueueTriggerCallback callback,
                                                         void *triggerRefcon, SVBufferQueueTriggerCondition condition,
                                                         int32_t threshold,
                                                         SVBufferQueueTriggerToken *triggerTokenOut) noexcept {
    return installTrigger(queue, callback, triggerRefcon, condition, kInvalid, threshold, triggerTokenOut);
}

OSStatus SVBufferQueueRemoveTrigger(SVBufferQueueRef queue, SVBufferQueueTriggerToken triggerToken) noexcept {
    if (!gSVBufferQueueClass.checked(queue) || triggerToken == nullptr)
        return kSVBufferQueueError_RequiredParameterMissing;
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (queue->insideTriggerCallback) return kSVBufferQueueError_CannotModifyQueueFromTriggerCallback;
    if (!isInstalledLocked(queue, triggerToken)) return kSVBufferQueueError_InvalidTriggerToken;
    // Unlinked, mending the list's ends.
    TriggerList *triggers = queue->triggers;
    if (triggerToken->prev != nullptr)
        triggerToken->prev->next = triggerToken->next;
    else
        triggers->head = triggerToken->next;
    if (triggerToken->next != nullptr)
        triggerToken->next->prev = triggerToken->prev;
    else
        triggers->tail = triggerToken->prev;
    if (isExtremeCondition(triggerToken->condition)) queue->extremeTriggers--;
    if (triggerToken->installing)
        triggerToken->removedWhileInstalling = true;  // its install call frees it
    else
        CFAllocatorDeallocate(allocatorOf(queue), triggerToken);
    return 0;
}

Boolean SVBufferQueueTestTrigger(SVBufferQueueRef queue, SVBufferQueueTriggerToken triggerToken) noexcept {
    if (!gSVBufferQueueClass.checked(queue)) {
        SV_LOG_HERE(3, "The queue is null");
        return false;
    }
    sorvel::SVMutexGuard lock(&queue->mutex);
    if (triggerToken == nullptr || !isInstalledLocked(queue, triggerToken)) {
        SV_LOG_HERE(3, "The trigger is not installed on the queue");
        return false;
    }
    return triggerHoldsLocked(queue, triggerToken);
}

}  // extern "C"
