// SPDX-License-Identifier: Apache-2.0
// `sorvel play`: real-time playback without a decoder.
//
// A reader thread turns packets into sample buffers and enqueues them into a
// buffer queue sorted by output presentation time.  Two duration triggers
// give back-pressure: when the queue holds `high` worth of media the reader
// waits until it drains below `low`.  The player takes each sample when a
// timebase on the host clock, running at the asked rate, reaches its output
// presentation time, and measures how far from that moment it was taken.
//
// Backwards (a negative rate) the reader walks the file one group of
// pictures at a time from the end, each sample carrying the reverse
// attachment so that its output presentation time is its end; the queue
// then sorts latest first.
#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <thread>

#include "Commands.h"
#include "Json.h"
#include "MediaSource.h"
#include "PresentationTimer.h"
#include "audio/SoundSession.h"

namespace sorvel::tool {
namespace {

// Ctrl-C (or SIGTERM) ends playing; the report still comes out.
std::atomic<bool> gInterrupted{false};

void interrupt(int) {
    gInterrupted = true;
}

struct StopOnInterrupt {
    struct sigaction previous[2] = {};
    StopOnInterrupt() {
        struct sigaction action = {};
        action.sa_handler = interrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &previous[0]);
        sigaction(SIGTERM, &action, &previous[1]);
    }
    ~StopOnInterrupt() {
        sigaction(SIGINT, &previous[0], nullptr);
        sigaction(SIGTERM, &previous[1], nullptr);
    }
};

// A sample taken more than this after its moment counts as late.
constexpr double kLateMilliseconds = 2.0;

struct Flow {
    std::mutex mutex;
    std::condition_variable changed;
    bool full = false;
    bool stop = false;
    uint64_t enqueued = 0;  // samples enqueued so far: the player's wake-up signal
    // The player's presentation timer, woken on every enqueue too; set
    // while the player waits on it, cleared before it goes.
    std::atomic<PresentationTimer *> timer{nullptr};
    int64_t groupsQueued = 0;  // backwards: groups of pictures enqueued whole
    bool readerDone = false;
    std::optional<ToolError> readerError;
};

void queueFilled(void *refcon, SVBufferQueueTriggerToken) {
    auto *flow = static_cast<Flow *>(refcon);
    std::lock_guard<std::mutex> lock(flow->mutex);
    flow->full = true;
}

void queueDrained(void *refcon, SVBufferQueueTriggerToken) {
    auto *flow = static_cast<Flow *>(refcon);
    {
        std::lock_guard<std::mutex> lock(flow->mutex);
        flow->full = false;
    }
    flow->changed.notify_all();
}

CFComparisonResult laterFirst(SVBufferRef a, SVBufferRef b, void *) {
    const int32_t order = SVTimeCompare(SVSampleBufferGetOutputPresentationTimeStamp((SVSampleBufferRef)b),
                                        SVSampleBufferGetOutputPresentationTimeStamp((SVSampleBufferRef)a));
    return order < 0 ? kCFCompareLessThan : order > 0 ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

uint64_t hostNow() {
    return SVClockConvertHostTimeToSystemUnits(SVClockGetTime(SVClockGetHostTimeClock()));
}

// Waits until host time `host` (CLOCK_MONOTONIC nanoseconds, the clock of
// std::chrono::steady_clock here) or until a sample is enqueued.  Progress
// is redrawn at least every 100 ms.
void waitForChange(Flow &flow, uint64_t host) {
    const auto until = std::chrono::steady_clock::time_point(
        std::chrono::nanoseconds(std::min<uint64_t>(host, hostNow() + 100000000)));
    std::unique_lock<std::mutex> lock(flow.mutex);
    const uint64_t seen = flow.enqueued;
    flow.changed.wait_until(lock, until, [&] { return flow.enqueued != seen || flow.stop; });
}

struct Window {
    bool reverse;
    double start;  // seconds of the stream's timeline
    double end;    // reached last; below start when reversing
    // The part of [pts, pts + duration) that is shown lies inside the window.
    bool shows(double pts, double duration) const {
        return reverse ? pts < start && pts + duration > end : pts + duration > start && pts < end;
    }
};

class Reader {
public:
    Reader(MediaSource &source, SVBufferQueueRef queue, Flow &flow, const Window &window, bool seekFirst)
        : source_(source), queue_(queue), flow_(flow), window_(window), seekFirst_(seekFirst) {}

    void run() {
        if (window_.reverse)
            runBackwards();
        else
            runForwards();
        SVBufferQueueMarkEndOfData(queue_);
        {
            std::lock_guard<std::mutex> lock(flow_.mutex);
            flow_.readerDone = true;
        }
        flow_.changed.notify_all();
    }

private:
    // Waits for room; false when playback is over.
    bool waitForRoom() {
        std::unique_lock<std::mutex> lock(flow_.mutex);
        flow_.changed.wait(lock, [&] { return !flow_.full || flow_.stop; });
        return !flow_.stop;
    }

    bool enqueue(SVSampleBufferRef buffer) {
        const OSStatus status = SVBufferQueueEnqueue(queue_, buffer);
        if (status != 0) {
            fail({kExitFailure, format("the buffer queue refused a sample (status %d)", static_cast<int>(status))});
            return false;
        }
        {
            std::lock_guard<std::mutex> lock(flow_.mutex);
            ++flow_.enqueued;
        }
        flow_.changed.notify_all();
        if (PresentationTimer *timer = flow_.timer.load()) timer->wake();
        return true;
    }

    void fail(ToolError error) {
        std::lock_guard<std::mutex> lock(flow_.mutex);
        if (!flow_.readerError) flow_.readerError = std::move(error);
    }

    // Positions the source so that the sync sample at or before the start
    // comes first.  Inputs without an index may land later than asked, even
    // after the last sync sample: step back further until that sync sample
    // comes first.  Inputs that cannot seek at all (raw elementary streams)
    // are read forward from the start instead.  False when the stream holds
    // no sync sample at or before the start at all; `sample` is then unset.
    bool reachStart(VideoSample &sample) {
        const int64_t target = source_.secondsToTicks(window_.start);
        const int64_t second = source_.secondsToTicks(1.0);
        bool have = false;
        for (int64_t back = 0; back <= 64 * second; back = back ? back * 2 : second) {
            // A failed seek may leave the reader anywhere: start over.
            if (!source_.seekToSyncBefore(target - back)) return source_.rewind() && readForwardTo(target, sample);
            have = false;
            while (source_.next(sample))
                if (sample.sync) {
                    have = true;
                    break;
                }
            if (have && sample.pts <= target) return true;
        }
        // Stepping back never reached a sync sample before the start: start
        // from the beginning of the stream.
        return source_.rewind() && readForwardTo(target, sample);
    }

    // Reads from where the source stands and keeps only the group of
    // pictures that starts with the last sync sample at or before `target`;
    // the samples after its first wait in `pending_`.
    bool readForwardTo(int64_t target, VideoSample &sample) {
        std::vector<VideoSample> group;
        VideoSample read;
        bool beyond = false;  // `read` is a sync sample past the target
        while (source_.next(read)) {
            if (read.sync && read.pts > target) {
                beyond = true;
                break;
            }
            if (read.sync) group.clear();
            if (read.sync || !group.empty()) group.push_back(read);
        }
        if (beyond) group.push_back(read);
        if (group.empty()) return false;
        sample = group.front();
        pending_.assign(group.begin() + 1, group.end());
        pendingNext_ = 0;
        return true;
    }

    bool nextSample(VideoSample &sample) {
        if (pendingNext_ < pending_.size()) {
            sample = pending_[pendingNext_++];
            return true;
        }
        pending_.clear();
        pendingNext_ = 0;
        return source_.next(sample);
    }

    void runForwards() {
        VideoSample sample;
        bool have = false;
        if (seekFirst_) {
            have = reachStart(sample);
            if (source_.problem()) {
                fail(*source_.problem());
                return;
            }
            if (!have) {
                fail({kExitUnsupported,
                      format("%s: no sync sample to start at %.3f s", source_.name().c_str(), window_.start)});
                return;
            }
        }
        // Reordered pictures can follow a late decode time by a second at most.
        const double stopAfter = window_.end + 1.0;
        while (have || nextSample(sample)) {
            have = false;
            if (source_.ticksToSeconds(sample.dts) > stopAfter) break;
            if (!waitForRoom() || !enqueue(sample.buffer.get())) return;
        }
        if (source_.problem()) fail(*source_.problem());
    }

    // One group of pictures: a sync sample and every sample decoded after it
    // up to the next sync sample.
    struct Group {
        int64_t syncDts;
        double first, last;  // presentation span in seconds
    };

    void runBackwards() {
        std::vector<Group> groups;
        VideoSample sample;
        while (source_.next(sample)) {
            const double pts = source_.ticksToSeconds(sample.pts);
            const double end = pts + source_.ticksToSeconds(sample.duration);
            if (sample.sync || groups.empty()) groups.push_back({sample.dts, pts, end});
            groups.back().first = std::min(groups.back().first, pts);
            groups.back().last = std::max(groups.back().last, end);
        }
        if (source_.problem()) {
            fail(*source_.problem());
            return;
        }
        for (size_t g = groups.size(); g-- > 0;) {
            if (groups[g].first >= window_.start) continue;
            if (groups[g].last <= window_.end) break;
            const int64_t nextSync = g + 1 < groups.size() ? groups[g + 1].syncDts : INT64_MAX;
            std::vector<Ref<SVSampleBufferRef>> group;
            if (!readGroup(groups[g].syncDts, nextSync, group)) {
                fail({kExitUnsupported, format("%s: playing backwards needs an input that can seek to its sync samples",
                                               source_.name().c_str())});
                return;
            }
            // A group goes in whole: its last picture is shown first.
            if (!waitForRoom()) return;
            for (const Ref<SVSampleBufferRef> &buffer : group)
                if (!enqueue(buffer.get())) return;
            {
                std::lock_guard<std::mutex> lock(flow_.mutex);
                ++flow_.groupsQueued;
            }
            flow_.changed.notify_all();
        }
    }

    bool readGroup(int64_t syncDts, int64_t nextSync, std::vector<Ref<SVSampleBufferRef>> &group) {
        // Seeking may land later than asked on inputs without an index:
        // step back further until the sync sample comes first.
        const int64_t second = source_.secondsToTicks(1.0);
        for (int64_t back = 0; back <= 64 * second; back = back ? back * 2 : second) {
            if (!source_.seekToSyncBefore(syncDts - back)) return false;
            VideoSample sample;
            bool found = false;
            while (source_.next(sample)) {
                if (!found) {
                    if (sample.dts > syncDts) break;  // landed too late
                    if (sample.dts < syncDts) continue;
                    found = true;
                }
                if (sample.dts >= nextSync) break;
                SVSetAttachment(sample.buffer.get(), kSVSampleBufferAttachmentKey_Reverse, kCFBooleanTrue,
                                kSVAttachmentMode_ShouldPropagate);
                group.push_back(sample.buffer);
            }
            if (found) return true;
        }
        return false;
    }

    MediaSource &source_;
    SVBufferQueueRef queue_;
    Flow &flow_;
    Window window_;
    bool seekFirst_;
    // Samples read ahead while looking for the start, not yet enqueued.
    std::vector<VideoSample> pending_;
    size_t pendingNext_ = 0;
};

struct Report {
    int64_t shown = 0, skipped = 0, late = 0, underruns = 0;
    double errorSum = 0, worst = 0;  // milliseconds, positive = late
    double wall = 0;
    double reached = NAN;  // the far edge of the last picture shown
    int64_t gaps = 0;      // jumps in presentation time that were skipped
    double gapSeconds = 0;
    // When the presentation timer's handler ran against the deadline the
    // timebase asked for, milliseconds.
    audio::ErrorStats wakeUps{kLateMilliseconds};
};

// The presentation timer wakes the player this long before a picture's
// moment; the rest is spun, which no timer wakes as precisely.
constexpr uint64_t kSpinNanoseconds = 1000000;

// A jump in presentation time between pictures shown one after the other
// that is far beyond the frame duration is a damaged or restarted time line,
// not a pause to wait out: players move on.
constexpr double kGapFrames = 30, kGapMinimumSeconds = 1.0;

// `end`: the far edge of the window, or of the stream when the window is open.
void drawProgress(double position, const Window &window, double end, const Report &report) {
    const double span = std::fabs(end - window.start);
    const double done = span > 0 ? std::clamp(std::fabs(position - window.start) / span, 0.0, 1.0) : 1.0;
    char bar[41];
    const int filled = static_cast<int>(done * 40);
    for (int i = 0; i < 40; ++i) bar[i] = i < filled ? '#' : '.';
    bar[40] = '\0';
    fprintf(stderr, "\r  %8.3f s [%s] %lld shown, %lld late ", position, bar, static_cast<long long>(report.shown),
            static_cast<long long>(report.late));
    fflush(stderr);
}

}  // namespace

int runPlay(const PlayOptions &options) {
    ToolError error;
    std::unique_ptr<MediaSource> source = MediaSource::open(options.file, error);
    audio::AudioMode audioMode = audio::AudioMode::Auto;
    audio::parseAudioMode(options.audio, audioMode);
    if (!source && error.code == kExitNoVideo && audioMode != audio::AudioMode::None) {
        // Sound without pictures: play the sound and report it.
        const audio::SoundOnlyRequest request{
            audioMode,    options.file,  options.file.empty() ? "(embedded demo stream)" : options.file,
            options.rate, options.start, options.duration,
            options.json};
        std::string soundError;
        StopOnInterrupt stopOnInterrupt;
        const int status = audio::playSoundOnly(request, gInterrupted, soundError);
        if (status < 0) return reportError({kExitNoVideo, error.message + "; " + soundError});
        // As with pictures: an interrupted run ends with its own status, after its report.
        if (gInterrupted) return kExitInterrupted;
        if (status > 0) return reportError({kExitFailure, soundError});
        return kExitOK;
    }
    if (!source) return reportError(error);
    const bool reverse = options.rate < 0;

    // The window of the stream's timeline to play, in seconds.
    Window window{reverse, 0, 0};
    const double origin = source->ticksToSeconds(source->declaredStartTicks());
    double streamEnd = origin + source->declaredDuration();
    if (reverse) {
        // The end of the stream is only known for sure once it was read.
        std::unique_ptr<MediaSource> scan = MediaSource::open(options.file, error);
        if (!scan) return reportError(error);
        VideoSample sample;
        streamEnd = origin;
        while (scan->next(sample))
            streamEnd = std::max(streamEnd, scan->ticksToSeconds(sample.pts + std::max<int64_t>(sample.duration, 0)));
        if (!std::isnan(options.start) && origin + options.start > streamEnd)
            return reportError({kExitUsage, format("--start %.3f is past the end of the stream (%.3f s)", options.start,
                                                   streamEnd - origin)});
        window.start = std::isnan(options.start) ? streamEnd : origin + options.start;
        window.end = std::isnan(options.duration) ? origin : std::max(origin, window.start - options.duration);
    } else {
        window.start = origin + (std::isnan(options.start) ? 0 : options.start);
        window.end = std::isnan(options.duration) ? INFINITY : window.start + options.duration;
        if (!std::isnan(options.start) && !std::isnan(streamEnd) && window.start >= streamEnd)
            return reportError({kExitUsage, format("--start %.3f is past the end of the stream (%.3f s)", options.start,
                                                   streamEnd - origin)});
    }

    SVBufferCallbacks callbacks = *SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS();
    if (reverse) callbacks.compare = laterFirst;
    Ref<SVBufferQueueRef> queue;
    OSStatus status = SVBufferQueueCreate(nullptr, 0, &callbacks, queue.out());
    if (status != 0)
        return reportError({kExitFailure, format("cannot make a buffer queue (status %d)", static_cast<int>(status))});

    // Keep about half a second of playing time queued, at least half a
    // second of media.
    const double high = std::max(0.5, 0.5 * std::fabs(options.rate));
    Flow flow;
    SVBufferQueueTriggerToken fillToken = nullptr, drainToken = nullptr;
    SVBufferQueueInstallTrigger(queue.get(), queueFilled, &flow,
                                kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo,
                                SVTimeMakeWithSeconds(high, 1000000), &fillToken);
    SVBufferQueueInstallTrigger(queue.get(), queueDrained, &flow, kSVBufferQueueTrigger_WhenDurationBecomesLessThan,
                                SVTimeMakeWithSeconds(high / 2, 1000000), &drainToken);

    // The sound fills its output while the pictures preroll, and plays once
    // they are ready.
    audio::SoundSummary sound;
    std::string soundError;
    std::unique_ptr<audio::SoundSession> session =
        audio::SoundSession::start(audioMode, options.file, options.rate, window.start, window.end, sound, soundError);
    if (!session && !soundError.empty()) return reportError({kExitFailure, "sound: " + soundError});

    Reader reader(*source, queue.get(), flow, window, !std::isnan(options.start));
    std::thread readerThread([&reader] { reader.run(); });

    StopOnInterrupt stopOnInterrupt;
    // Preroll: start the clock once the queue is full and holds what is due
    // first, or once the file is read.  Backwards, a group goes in in decode
    // order, so what is due first (its last picture) may come last.
    {
        std::unique_lock<std::mutex> lock(flow.mutex);
        while (!flow.changed.wait_for(lock, std::chrono::milliseconds(50), [&] {
            return (flow.full && (!reverse || flow.groupsQueued > 0)) || flow.readerDone;
        }))
            if (gInterrupted) break;
    }
    if (!reverse && std::isnan(options.start)) {
        // Without --start playing begins with the earliest picture queued.
        const SVTime first =
            SVSampleBufferGetOutputPresentationTimeStamp((SVSampleBufferRef)SVBufferQueueGetHead(queue.get()));
        if (SVTIME_IS_NUMERIC(first)) {
            window.start = seconds(first);
            if (!std::isnan(options.duration)) window.end = window.start + options.duration;
        }
    }

    SVClockRef host = SVClockGetHostTimeClock();
    Ref<SVTimebaseRef> timebase;
    if (session && (!session->go(soundError) || !session->waitUntilPlaying(5.0, soundError))) {
        session->finish({}, sound);
        sound.state = "failed";
        sound.reason = soundError;
        session.reset();
        if (audioMode == audio::AudioMode::Pulse) {
            {
                std::lock_guard<std::mutex> lock(flow.mutex);
                flow.stop = true;
            }
            flow.changed.notify_all();
            readerThread.join();
            return reportError({kExitFailure, "sound: " + soundError});
        }
        // The sound never started: carry on by the host clock.
        fprintf(stderr, "sorvel: no sound (%s); timing the pictures on the host clock\n", soundError.c_str());
    }
    uint64_t startHost = hostNow() + 5000000;  // 5 ms to settle before the first picture
    if (session) {
        // The pictures follow the sound: the timebase reads the presentation
        // time of the sound leaving the device.
        SVTimebaseCreateWithMasterClock(nullptr, session->clock(), timebase.out());
        session->anchor(timebase.get());
        startHost = hostNow();
    } else {
        SVTimebaseCreateWithMasterClock(nullptr, host, timebase.out());
        SVTimebaseSetRateAndAnchorTime(timebase.get(), options.rate, SVTimeMakeWithSeconds(window.start, 1000000000),
                                       SVClockMakeHostTimeFromSystemUnits(startHost));
    }
    std::vector<audio::PictureShown> pictures;
    // Every picture is scheduled with a timer dispatch source on the
    // timebase; without one the player sleeps on the host clock instead.
    std::string timerError;
    std::unique_ptr<PresentationTimer> timer = PresentationTimer::create(timebase.get(), timerError);
    if (!timer) fprintf(stderr, "sorvel: %s; sleeping on the host clock instead\n", timerError.c_str());
    flow.timer.store(timer.get());
    SVTime armedFor = kSVTimeInvalid;

    // Presentation is the one thing here that must not wait for the
    // scheduler: ask for a real-time priority and carry on without it when
    // the system says no.
    int oldPolicy = SCHED_OTHER;
    sched_param oldParameters = {};
    pthread_getschedparam(pthread_self(), &oldPolicy, &oldParameters);
    sched_param realTime = {};
    realTime.sched_priority = std::min(10, sched_get_priority_max(SCHED_FIFO));
    const bool raised = pthread_setschedparam(pthread_self(), SCHED_FIFO, &realTime) == 0;

    const bool progress = options.progress && isatty(STDERR_FILENO);
    const double frameSeconds = source->ticksToSeconds(source->defaultFrameTicks());
    SVSampleBufferRef gapChecked = nullptr;  // only compared, never dereferenced
    Report report;
    uint64_t lastDraw = 0;
    for (;;) {
        if (gInterrupted) break;
        SVSampleBufferRef head = (SVSampleBufferRef)SVBufferQueueGetHead(queue.get());
        if (!head) {
            if (SVBufferQueueIsAtEndOfData(queue.get()) || SVBufferQueueContainsEndOfData(queue.get())) break;
            ++report.underruns;
            std::unique_lock<std::mutex> lock(flow.mutex);
            flow.changed.wait_for(lock, std::chrono::milliseconds(5));
            continue;
        }
        const double pts = seconds(SVSampleBufferGetPresentationTimeStamp(head));
        const SVTime sampleDuration = SVSampleBufferGetDuration(head);
        const double duration = SVTIME_IS_NUMERIC(sampleDuration) ? seconds(sampleDuration) : 0;
        if (!window.shows(pts, duration)) {
            CFRelease(SVBufferQueueDequeueAndRetain(queue.get()));
            ++report.skipped;
            continue;
        }
        // Across a gap the timebase is moved on so that the picture is due now.
        if (!std::isnan(report.reached) && head != gapChecked) {
            gapChecked = head;  // checked once, however often the loop comes back to it
            const double jump = reverse ? report.reached - (pts + duration) : pts - report.reached;
            if (jump > std::max(kGapMinimumSeconds, kGapFrames * std::max(duration, frameSeconds))) {
                ++report.gaps;
                report.gapSeconds += jump;
                // The master's time now: the host clock's, or the sound's.
                SVTimebaseSetRateAndAnchorTime(timebase.get(), session ? 1.0 : options.rate,
                                               SVTimeMakeWithSeconds(reverse ? pts + duration : pts, 1000000000),
                                               SVClockGetTime(SVTimebaseGetMasterClock(timebase.get())));
            }
        }
        // The picture that straddles the start is due at once.
        SVTime due = SVSampleBufferGetOutputPresentationTimeStamp(head);
        const SVTime windowStart = SVTimeMakeWithSeconds(window.start, 1000000000);
        if (reverse ? SVTimeCompare(due, windowStart) > 0 : SVTimeCompare(due, windowStart) < 0) due = windowStart;
        const uint64_t dueHost = SVClockConvertHostTimeToSystemUnits(SVTimeConvertScale(
            SVSyncConvertTime(due, timebase.get(), host), 1000000000, kSVTimeRoundingMethod_Default));
        // Sleep until the last millisecond before the moment, but wake when
        // the queue changes: an earlier picture may have become the head.
        // Then spin through the last millisecond.
        uint64_t now = hostNow();
        if (now + kSpinNanoseconds < dueHost) {
            if (timer) {
                // Armed for the spin's start on the timebase's own timeline,
                // so that the timebase follows its clock (the sound's) and
                // its changes; an enqueue or the progress bar wakes it too.
                const SVTime early =
                    SVTimeMakeWithSeconds(1e-9 * kSpinNanoseconds * std::fabs(options.rate), 1000000000);
                const SVTime fire = reverse ? SVTimeAdd(due, early) : SVTimeSubtract(due, early);
                if (SVTimeCompare(fire, armedFor) != 0 || !SVTIME_IS_VALID(armedFor)) {
                    timer->arm(fire);
                    armedFor = fire;
                }
                PresentationTimer::Firing firing;
                const uint64_t patience = std::min<uint64_t>(dueHost - now, 100000000);
                if (timer->wait(std::chrono::nanoseconds(patience), firing) == PresentationTimer::Outcome::Fired) {
                    report.wakeUps.add(
                        (static_cast<double>(firing.handlerHost) - static_cast<double>(firing.deadlineHost)) / 1e6);
                    armedFor = kSVTimeInvalid;  // fired: a timer stays unarmed until armed again
                }
            } else {
                waitForChange(flow, dueHost - kSpinNanoseconds);
            }
            if (progress && hostNow() - lastDraw > 100000000) {
                lastDraw = hostNow();
                drawProgress(seconds(SVTimebaseGetTime(timebase.get())), window,
                             std::isinf(window.end) ? streamEnd : window.end, report);
            }
            continue;
        }
        while ((now = hostNow()) < dueHost) {
        }
        SVSampleBufferRef taken = (SVSampleBufferRef)SVBufferQueueDequeueAndRetain(queue.get());
        const uint64_t takenHost = hostNow();
        // An earlier picture may have become the head during the wait: it
        // was due even sooner, so it is judged against its own moment.
        uint64_t takenDue = dueHost;
        if (taken != head) {
            SVTime takenTime = SVSampleBufferGetOutputPresentationTimeStamp(taken);
            if (reverse ? SVTimeCompare(takenTime, windowStart) > 0 : SVTimeCompare(takenTime, windowStart) < 0)
                takenTime = windowStart;
            takenDue = SVClockConvertHostTimeToSystemUnits(SVTimeConvertScale(
                SVSyncConvertTime(takenTime, timebase.get(), host), 1000000000, kSVTimeRoundingMethod_Default));
        }
        // The picture that straddles the start is presented from the start.
        SVTime shownTime = SVSampleBufferGetOutputPresentationTimeStamp(taken);
        if (reverse ? SVTimeCompare(shownTime, windowStart) > 0 : SVTimeCompare(shownTime, windowStart) < 0)
            shownTime = windowStart;
        pictures.push_back({seconds(shownTime), takenHost});
        CFRelease(taken);
        const double errorMs = (static_cast<double>(takenHost) - static_cast<double>(takenDue)) / 1e6;
        ++report.shown;
        report.reached = reverse
                             ? (std::isnan(report.reached) ? pts : std::min(report.reached, pts))
                             : (std::isnan(report.reached) ? pts + duration : std::max(report.reached, pts + duration));
        report.errorSum += std::fabs(errorMs);
        if (std::fabs(errorMs) > std::fabs(report.worst)) report.worst = errorMs;
        if (errorMs > kLateMilliseconds) ++report.late;
    }
    if (session) {
        // Sound that outlasts the pictures plays to its end.
        while (!session->soundDone() && session->problem().empty() && !gInterrupted)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        session->finish(pictures, sound);
        if (sound.state == "failed")
            fprintf(stderr, "sorvel: the sound failed (%s)%s\n", sound.reason.c_str(),
                    audioMode == audio::AudioMode::Pulse ? "" : "; the pictures went on by the last clock reading");
    }
    const uint64_t endHost = hostNow();
    if (raised) pthread_setschedparam(pthread_self(), oldPolicy, &oldParameters);
    report.wall = std::max(0.0, (static_cast<double>(endHost) - static_cast<double>(startHost)) / 1e9);
    {
        std::lock_guard<std::mutex> lock(flow.mutex);
        flow.stop = true;
    }
    flow.changed.notify_all();
    readerThread.join();
    flow.timer.store(nullptr);
    timer.reset();
    if (progress) fprintf(stderr, "\r%*s\r", 80, "");

    const double mean = report.shown ? report.errorSum / static_cast<double>(report.shown) : 0;
    const double shownEnd = std::isnan(report.reached) ? window.start : report.reached;
    if (options.json) {
        JsonWriter json(stdout);
        json.beginObject();
        json.string("file", source->name());
        json.number("rate", options.rate);
        json.number("start", window.start);
        json.number("end", shownEnd);
        json.integer("samples_shown", report.shown);
        json.integer("samples_skipped", report.skipped);
        json.integer("late_samples", report.late);
        json.integer("underruns", report.underruns);
        json.number("mean_error_ms", mean);
        json.number("worst_error_ms", report.worst);
        json.number("wall_seconds", report.wall);
        json.integer("time_gaps", report.gaps);
        json.boolean("interrupted", gInterrupted);
        json.number("time_gap_seconds", report.gapSeconds);
        json.beginObject("timer_wakeup_error_ms");
        json.integer("count", report.wakeUps.count());
        json.number("mean", report.wakeUps.count() ? report.wakeUps.mean() : NAN);
        json.number("standard_deviation", report.wakeUps.count() ? report.wakeUps.standardDeviation() : NAN);
        json.number("worst", report.wakeUps.count() ? report.wakeUps.worst() : NAN);
        json.endObject();
        audio::writeSoundJson(json, sound, pictures);
        json.endObject();
        json.finish();
        reportErrorsAsJson(false);
    } else {
        printf("Played %s at rate %g from %.3f s to %.3f s in %.3f s of wall time\n", source->name().c_str(),
               options.rate, window.start, shownEnd, report.wall);
        printf("  Samples shown   %lld (%lld outside the window skipped)\n", static_cast<long long>(report.shown),
               static_cast<long long>(report.skipped));
        printf("  Late samples    %lld (more than %.0f ms after their time)\n", static_cast<long long>(report.late),
               kLateMilliseconds);
        printf("  Timing error    mean %.3f ms, worst %+.3f ms against the timebase\n", mean, report.worst);
        if (report.underruns) printf("  Queue ran dry   %lld times\n", static_cast<long long>(report.underruns));
        if (report.wakeUps.count())
            printf("  Timer wake-up   mean %+.3f ms, deviation %.3f ms, worst %+.3f ms after the deadline\n",
                   report.wakeUps.mean(), report.wakeUps.standardDeviation(), report.wakeUps.worst());
        if (gInterrupted) printf("  Interrupted     playing stopped early\n");
        if (report.gaps)
            printf("  Time gaps       %lld skipped (%.3f s of presentation time)\n",
                   static_cast<long long>(report.gaps), report.gapSeconds);
        audio::printSoundSummary(sound);
    }
    fflush(stdout);
    SVBufferQueueRemoveTrigger(queue.get(), fillToken);
    SVBufferQueueRemoveTrigger(queue.get(), drainToken);
    if (flow.readerError) return reportError(*flow.readerError);
    if (gInterrupted) return kExitInterrupted;
    if (sound.state == "failed" && audioMode == audio::AudioMode::Pulse)
        return reportError({kExitFailure, "sound: " + sound.reason});
    return kExitOK;
}

}  // namespace sorvel::tool
