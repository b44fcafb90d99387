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
#include <optional>
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
        const OSStatus status = SVBufferQueueMarkEndOfData(queue_);
        if (status != 0)
            fail({kExitFailure, format("the buffer queue refused its end (status %d)", static_cast<int>(status))});
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

// Plays the sound of a file without pictures and reports it.
int playSoundWithoutPictures(const PlayOptions &options, audio::AudioMode mode, const ToolError &noVideo) {
    audio::SoundOnlyRequest request;
    request.mode = mode;
    request.file = options.file;
    request.name = options.file.empty() ? "(embedded demo stream)" : options.file;
    request.rate = options.rate;
    request.start = options.start;
    request.duration = options.duration;
    request.json = options.json;
    std::string soundError;
    StopOnInterrupt stopOnInterrupt;
    const int status = audio::playSoundOnly(request, gInterrupted, soundError);
    if (status < 0) return reportError({kExitNoVideo, noVideo.message + "; " + soundError});
    // As with pictures: an interrupted run ends with its own status, after its report.
    if (gInterrupted) return kExitInterrupted;
    if (status > 0) return reportError({kExitFailure, soundError});
    return kExitOK;
}

std::optional<ToolError> startPastTheEnd(const PlayOptions &options, double origin, double streamEnd) {
    return ToolError{kExitUsage,
                     format("--start %.3f is past the end of the stream (%.3f s)", options.start, streamEnd - origin)};
}

// The window of the stream's timeline to play, in seconds, and the
// stream's end (NaN when forwards and the container does not say).
std::optional<ToolError> planWindow(const PlayOptions &options, MediaSource &source, Window &window,
                                    double &streamEnd) {
    window.reverse = options.rate < 0;
    const double origin = source.ticksToSeconds(source.declaredStartTicks());
    streamEnd = origin + source.declaredDuration();
    if (!window.reverse) {
        window.start = origin + (std::isnan(options.start) ? 0 : options.start);
        window.end = std::isnan(options.duration) ? INFINITY : window.start + options.duration;
        if (!std::isnan(options.start) && !std::isnan(streamEnd) && window.start >= streamEnd)
            return startPastTheEnd(options, origin, streamEnd);
        return std::nullopt;
    }
    // The end of the stream is only known for sure once it was read.
    ToolError error;
    std::unique_ptr<MediaSource> scan = MediaSource::open(options.file, error);
    if (!scan) return error;
    VideoSample sample;
    streamEnd = origin;
    while (scan->next(sample))
        streamEnd = std::max(streamEnd, scan->ticksToSeconds(sample.pts + std::max<int64_t>(sample.duration, 0)));
    if (!std::isnan(options.start) && origin + options.start > streamEnd)
        return startPastTheEnd(options, origin, streamEnd);
    window.start = std::isnan(options.start) ? streamEnd : origin + options.start;
    window.end = std::isnan(options.duration) ? origin : std::max(origin, window.start - options.duration);
    return std::nullopt;
}

// The buffer queue the reader fills and the player drains, sorted by output
// presentation time (latest first backwards), with the two duration
// triggers that give back-pressure.
class PlayQueue {
public:
    OSStatus create(bool reverse, double rate, Flow &flow) {
        SVBufferCallbacks callbacks = *SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS();
        if (reverse) callbacks.compare = laterFirst;
        const OSStatus status = SVBufferQueueCreate(nullptr, 0, &callbacks, queue_.out());
        if (status != 0) return status;
        // Keep about half a second of playing time queued, at least half a
        // second of media.
        const double high = std::max(0.5, 0.5 * std::fabs(rate));
        const OSStatus fill = SVBufferQueueInstallTrigger(queue_.get(), queueFilled, &flow,
                                                          kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo,
                                                          SVTimeMakeWithSeconds(high, 1000000), &fillToken_);
        if (fill != 0) return fill;
        return SVBufferQueueInstallTrigger(queue_.get(), queueDrained, &flow,
                                           kSVBufferQueueTrigger_WhenDurationBecomesLessThan,
                                           SVTimeMakeWithSeconds(high / 2, 1000000), &drainToken_);
    }
    ~PlayQueue() {
        // Removing a trigger that was installed cannot fail, and one that
        // was not is refused harmlessly: the queue goes next anyway.
        if (fillToken_) (void)SVBufferQueueRemoveTrigger(queue_.get(), fillToken_);
        if (drainToken_) (void)SVBufferQueueRemoveTrigger(queue_.get(), drainToken_);
    }
    SVBufferQueueRef get() const { return queue_.get(); }

private:
    Ref<SVBufferQueueRef> queue_;
    SVBufferQueueTriggerToken fillToken_ = nullptr, drainToken_ = nullptr;
};

// Preroll: the clock starts once the queue is full and holds what is due
// first, or once the file is read.  Backwards, a group goes in in decode
// order, so what is due first (its last picture) may come last.
void waitForPreroll(Flow &flow, bool reverse) {
    std::unique_lock<std::mutex> lock(flow.mutex);
    while (!flow.changed.wait_for(lock, std::chrono::milliseconds(50), [&] {
        return (flow.full && (!reverse || flow.groupsQueued > 0)) || flow.readerDone;
    }))
        if (gInterrupted) break;
}

// Without --start playing begins with the earliest picture queued.
void startAtFirstQueued(SVBufferQueueRef queue, const PlayOptions &options, Window &window) {
    const SVTime first = SVSampleBufferGetOutputPresentationTimeStamp((SVSampleBufferRef)SVBufferQueueGetHead(queue));
    if (!SVTIME_IS_NUMERIC(first)) return;
    window.start = seconds(first);
    if (!std::isnan(options.duration)) window.end = window.start + options.duration;
}

// Lets the sound play once the pictures have prerolled.  False when it does
// not start: the summary then says why, and the session is gone.
bool letSoundPlay(std::unique_ptr<audio::SoundSession> &session, audio::SoundSummary &sound, std::string &error) {
    if (!session || (session->go(error) && session->waitUntilPlaying(5.0, error))) return true;
    session->finish({}, sound);
    sound.state = "failed";
    sound.reason = error;
    session.reset();
    return false;
}

void stopReader(Flow &flow, std::thread &reader) {
    {
        std::lock_guard<std::mutex> lock(flow.mutex);
        flow.stop = true;
    }
    flow.changed.notify_all();
    reader.join();
}

// Presentation is the one thing here that must not wait for the scheduler:
// a real-time priority while it lasts, and none when the system says no.
class RealTimePriority {
public:
    RealTimePriority() {
        // Without the old policy there would be nothing to go back to.
        if (pthread_getschedparam(pthread_self(), &oldPolicy_, &oldParameters_) != 0) return;
        sched_param realTime = {};
        realTime.sched_priority = std::min(10, sched_get_priority_max(SCHED_FIFO));
        raised_ = pthread_setschedparam(pthread_self(), SCHED_FIFO, &realTime) == 0;
    }
    ~RealTimePriority() {
        // Lowering one's own priority back is always allowed.
        if (raised_) (void)pthread_setschedparam(pthread_self(), oldPolicy_, &oldParameters_);
    }

private:
    int oldPolicy_ = SCHED_OTHER;
    sched_param oldParameters_ = {};
    bool raised_ = false;
};

// What the presentation loop works with, and what it measures.
struct Playback {
    Playback(const PlayOptions &options, SVBufferQueueRef queue, Flow &flow, const Window &window, double streamEnd,
             double frameSeconds)
        : options(options),
          queue(queue),
          flow(flow),
          window(window),
          streamEnd(streamEnd),
          frameSeconds(frameSeconds),
          progress(options.progress && isatty(STDERR_FILENO)) {}
    const PlayOptions &options;
    SVBufferQueueRef queue;
    Flow &flow;
    Window window;
    double streamEnd;  // for the progress bar of an open window
    double frameSeconds;
    bool progress;
    bool soundClock = false;  // the timebase follows the sound's clock, at rate 1
    SVClockRef host = SVClockGetHostTimeClock();
    Ref<SVTimebaseRef> timebase;
    std::unique_ptr<PresentationTimer> timer;
    SVTime armedFor = kSVTimeInvalid;
    SVSampleBufferRef gapChecked = nullptr;  // only compared, never dereferenced
    uint64_t lastDraw = 0;
    uint64_t startHost = 0;
    Report report;
    std::vector<audio::PictureShown> pictures;
};

// Makes the timebase the pictures are timed on: it reads the presentation
// time of the sound leaving the device when the sound plays, and runs at
// the asked rate on the host clock from 5 ms from now otherwise.
OSStatus startTimebase(Playback &play, const audio::SoundSession *session) {
    if (session) {
        OSStatus status = SVTimebaseCreateWithMasterClock(nullptr, session->clock(), play.timebase.out());
        if (status == 0) status = session->anchor(play.timebase.get());
        play.soundClock = true;
        play.startHost = hostNow();
        return status;
    }
    play.startHost = hostNow() + 5000000;  // 5 ms to settle before the first picture
    const OSStatus status = SVTimebaseCreateWithMasterClock(nullptr, play.host, play.timebase.out());
    if (status != 0) return status;
    return SVTimebaseSetRateAndAnchorTime(play.timebase.get(), play.options.rate,
                                          SVTimeMakeWithSeconds(play.window.start, 1000000000),
                                          SVClockMakeHostTimeFromSystemUnits(play.startHost));
}

// The picture that straddles the window's start is due, and presented, at the start.
SVTime notBeforeTheStart(const Playback &play, SVTime time) {
    const SVTime start = SVTimeMakeWithSeconds(play.window.start, 1000000000);
    const int32_t order = SVTimeCompare(time, start);
    return (play.window.reverse ? order > 0 : order < 0) ? start : time;
}

// The host time (nanoseconds) at which the timebase reaches `time`.
uint64_t hostTimeOf(const Playback &play, SVTime time) {
    return SVClockConvertHostTimeToSystemUnits(SVTimeConvertScale(
        SVSyncConvertTime(time, play.timebase.get(), play.host), 1000000000, kSVTimeRoundingMethod_Default));
}

// Across a gap the timebase is moved on so that the picture is due now.
void moveOnAcrossGap(Playback &play, SVSampleBufferRef head, double pts, double duration) {
    if (std::isnan(play.report.reached) || head == play.gapChecked) return;
    play.gapChecked = head;  // checked once, however often the loop comes back to it
    const bool reverse = play.window.reverse;
    const double jump = reverse ? play.report.reached - (pts + duration) : pts - play.report.reached;
    if (jump <= std::max(kGapMinimumSeconds, kGapFrames * std::max(duration, play.frameSeconds))) return;
    ++play.report.gaps;
    play.report.gapSeconds += jump;
    // The master's time now: the host clock's, or the sound's.  Every
    // argument is numeric and the timebase is the player's own, so it takes
    // the new anchor; were it refused, the picture would wait out the gap.
    (void)SVTimebaseSetRateAndAnchorTime(play.timebase.get(), play.soundClock ? 1.0 : play.options.rate,
                                         SVTimeMakeWithSeconds(reverse ? pts + duration : pts, 1000000000),
                                         SVClockGetTime(SVTimebaseGetMasterClock(play.timebase.get())));
}

// Sleeps until the last millisecond before `dueHost`, but wakes when the
// queue changes: an earlier picture may have become the head.  The timer
// is armed for the spin's start on the timebase's own timeline, so that the
// timebase follows its clock (the sound's) and its changes; an enqueue or
// the progress bar wakes it too.
void sleepUntilNearlyDue(Playback &play, SVTime due, uint64_t dueHost, uint64_t now) {
    if (play.timer) {
        const SVTime early = SVTimeMakeWithSeconds(1e-9 * kSpinNanoseconds * std::fabs(play.options.rate), 1000000000);
        const SVTime fire = play.window.reverse ? SVTimeAdd(due, early) : SVTimeSubtract(due, early);
        if (SVTimeCompare(fire, play.armedFor) != 0 || !SVTIME_IS_VALID(play.armedFor)) {
            // An arming refused leaves the wait to its timeout below: the
            // loop comes back within 100 ms and arms again.
            if (play.timer->arm(fire) == 0) play.armedFor = fire;
        }
        PresentationTimer::Firing firing;
        const uint64_t patience = std::min<uint64_t>(dueHost - now, 100000000);
        if (play.timer->wait(std::chrono::nanoseconds(patience), firing) == PresentationTimer::Outcome::Fired) {
            play.report.wakeUps.add(
                (static_cast<double>(firing.handlerHost) - static_cast<double>(firing.deadlineHost)) / 1e6);
            play.armedFor = kSVTimeInvalid;  // fired: a timer stays unarmed until armed again
        }
    } else {
        waitForChange(play.flow, dueHost - kSpinNanoseconds);
    }
    if (play.progress && hostNow() - play.lastDraw > 100000000) {
        play.lastDraw = hostNow();
        drawProgress(seconds(SVTimebaseGetTime(play.timebase.get())), play.window,
                     std::isinf(play.window.end) ? play.streamEnd : play.window.end, play.report);
    }
}

// Spins to `dueHost`, takes the head of the queue and measures how far
// from its moment it was taken.
void presentHead(Playback &play, SVSampleBufferRef head, uint64_t dueHost, double pts, double duration) {
    while (hostNow() < dueHost) {
    }
    SVSampleBufferRef taken = (SVSampleBufferRef)SVBufferQueueDequeueAndRetain(play.queue);
    const uint64_t takenHost = hostNow();
    // An earlier picture may have become the head during the wait: it was
    // due even sooner, so it is judged against its own moment.
    const SVTime shownTime = notBeforeTheStart(play, SVSampleBufferGetOutputPresentationTimeStamp(taken));
    const uint64_t takenDue = taken == head ? dueHost : hostTimeOf(play, shownTime);
    play.pictures.push_back({seconds(shownTime), takenHost});
    CFRelease(taken);
    const double errorMs = (static_cast<double>(takenHost) - static_cast<double>(takenDue)) / 1e6;
    Report &report = play.report;
    ++report.shown;
    if (play.window.reverse)
        report.reached = std::isnan(report.reached) ? pts : std::min(report.reached, pts);
    else
        report.reached = std::isnan(report.reached) ? pts + duration : std::max(report.reached, pts + duration);
    report.errorSum += std::fabs(errorMs);
    if (std::fabs(errorMs) > std::fabs(report.worst)) report.worst = errorMs;
    if (errorMs > kLateMilliseconds) ++report.late;
}

// Takes each picture when the timebase reaches its output presentation
// time, until the queue ends or playing is interrupted.
void presentAll(Playback &play) {
    for (;;) {
        if (gInterrupted) break;
        SVSampleBufferRef head = (SVSampleBufferRef)SVBufferQueueGetHead(play.queue);
        if (!head) {
            if (SVBufferQueueIsAtEndOfData(play.queue) || SVBufferQueueContainsEndOfData(play.queue)) break;
            ++play.report.underruns;
            std::unique_lock<std::mutex> lock(play.flow.mutex);
            if (play.flow.readerDone) break;  // the reader stopped without marking the end
            play.flow.changed.wait_for(lock, std::chrono::milliseconds(5));
            continue;
        }
        const double pts = seconds(SVSampleBufferGetPresentationTimeStamp(head));
        const SVTime sampleDuration = SVSampleBufferGetDuration(head);
        const double duration = SVTIME_IS_NUMERIC(sampleDuration) ? seconds(sampleDuration) : 0;
        if (!play.window.shows(pts, duration)) {
            CFRelease(SVBufferQueueDequeueAndRetain(play.queue));
            ++play.report.skipped;
            continue;
        }
        moveOnAcrossGap(play, head, pts, duration);
        const SVTime due = notBeforeTheStart(play, SVSampleBufferGetOutputPresentationTimeStamp(head));
        const uint64_t dueHost = hostTimeOf(play, due);
        // Sleep until the last millisecond before the moment, then spin
        // through it, which no timer wakes as precisely.
        if (const uint64_t now = hostNow(); now + kSpinNanoseconds < dueHost) {
            sleepUntilNearlyDue(play, due, dueHost, now);
            continue;
        }
        presentHead(play, head, dueHost, pts, duration);
    }
}

// Sound that outlasts the pictures plays to its end; then what it measured
// goes into the summary.
void finishSound(audio::SoundSession &session, const Playback &play, audio::AudioMode mode,
                 audio::SoundSummary &sound) {
    while (!session.soundDone() && session.problem().empty() && !gInterrupted)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    session.finish(play.pictures, sound);
    if (sound.state == "failed")
        fprintf(stderr, "sorvel: the sound failed (%s)%s\n", sound.reason.c_str(),
                mode == audio::AudioMode::Pulse ? "" : "; the pictures went on by the last clock reading");
}

double meanError(const Report &report) {
    return report.shown ? report.errorSum / static_cast<double>(report.shown) : 0;
}

// The far edge of what was shown; the window's start when nothing was.
double shownEnd(const Playback &play) {
    return std::isnan(play.report.reached) ? play.window.start : play.report.reached;
}

void writePlayJson(const Playback &play, const std::string &name, const audio::SoundSummary &sound) {
    const Report &report = play.report;
    JsonWriter json(stdout);
    json.beginObject();
    json.string("file", name);
    json.number("rate", play.options.rate);
    json.number("start", play.window.start);
    json.number("end", shownEnd(play));
    json.integer("samples_shown", report.shown);
    json.integer("samples_skipped", report.skipped);
    json.integer("late_samples", report.late);
    json.integer("underruns", report.underruns);
    json.number("mean_error_ms", meanError(report));
    json.number("worst_error_ms", report.worst);
    json.number("wall_seconds", report.wall);
    json.integer("time_gaps", report.gaps);
    json.boolean("interrupted", gInterrupted);
    json.number("time_gap_seconds", report.gapSeconds);
    json.beginObject("timer_wakeup_error_ms");
    audio::writeErrorStatsJson(json, report.wakeUps);
    json.endObject();
    audio::writeSoundJson(json, sound, play.pictures);
    json.endObject();
    json.finish();
    reportErrorsAsJson(false);
}

void printPlayText(const Playback &play, const std::string &name, const audio::SoundSummary &sound) {
    const Report &report = play.report;
    printf("Played %s at rate %g from %.3f s to %.3f s in %.3f s of wall time\n", name.c_str(), play.options.rate,
           play.window.start, shownEnd(play), report.wall);
    printf("  Samples shown   %lld (%lld outside the window skipped)\n", static_cast<long long>(report.shown),
           static_cast<long long>(report.skipped));
    printf("  Late samples    %lld (more than %.0f ms after their time)\n", static_cast<long long>(report.late),
           kLateMilliseconds);
    printf("  Timing error    mean %.3f ms, worst %+.3f ms against the timebase\n", meanError(report), report.worst);
    if (report.underruns) printf("  Queue ran dry   %lld times\n", static_cast<long long>(report.underruns));
    if (report.wakeUps.count())
        printf("  Timer wake-up   mean %+.3f ms, deviation %.3f ms, worst %+.3f ms after the deadline\n",
               report.wakeUps.mean(), report.wakeUps.standardDeviation(), report.wakeUps.worst());
    if (gInterrupted) printf("  Interrupted     playing stopped early\n");
    if (report.gaps)
        printf("  Time gaps       %lld skipped (%.3f s of presentation time)\n", static_cast<long long>(report.gaps),
               report.gapSeconds);
    audio::printSoundSummary(sound);
}

}  // namespace

int runPlay(const PlayOptions &options) {
    ToolError error;
    std::unique_ptr<MediaSource> source = MediaSource::open(options.file, error);
    audio::AudioMode audioMode = audio::AudioMode::Auto;
    (void)audio::parseAudioMode(options.audio, audioMode);  // main() refused what does not parse
    if (!source && error.code == kExitNoVideo && audioMode != audio::AudioMode::None)
        return playSoundWithoutPictures(options, audioMode, error);
    if (!source) return reportError(error);
    Window window{false, 0, 0};
    double streamEnd = NAN;
    if (const std::optional<ToolError> problem = planWindow(options, *source, window, streamEnd))
        return reportError(*problem);
    Flow flow;
    PlayQueue queue;
    if (const OSStatus status = queue.create(window.reverse, options.rate, flow); status != 0)
        return reportError({kExitFailure, format("cannot make a buffer queue (status %d)", static_cast<int>(status))});

    // The sound fills its output while the pictures preroll, and plays once they are ready.
    audio::SoundSummary sound;
    std::string soundError;
    std::unique_ptr<audio::SoundSession> session =
        audio::SoundSession::start(audioMode, options.file, options.rate, window.start, window.end, sound, soundError);
    if (!session && !soundError.empty()) return reportError({kExitFailure, "sound: " + soundError});
    Reader reader(*source, queue.get(), flow, window, !std::isnan(options.start));
    std::thread readerThread([&reader] { reader.run(); });
    StopOnInterrupt stopOnInterrupt;
    waitForPreroll(flow, window.reverse);
    if (!window.reverse && std::isnan(options.start)) startAtFirstQueued(queue.get(), options, window);
    if (!letSoundPlay(session, sound, soundError)) {
        if (audioMode == audio::AudioMode::Pulse) {
            stopReader(flow, readerThread);
            return reportError({kExitFailure, "sound: " + soundError});
        }
        // The sound never started: carry on by the host clock.
        fprintf(stderr, "sorvel: no sound (%s); timing the pictures on the host clock\n", soundError.c_str());
    }
    Playback play(options, queue.get(), flow, window, streamEnd, source->ticksToSeconds(source->defaultFrameTicks()));
    if (const OSStatus status = startTimebase(play, session.get()); status != 0) {
        stopReader(flow, readerThread);
        return reportError({kExitFailure, format("cannot start the timebase (status %d)", static_cast<int>(status))});
    }
    // Every picture is scheduled with a timer dispatch source on the
    // timebase; without one the player sleeps on the host clock instead.
    std::string timerError;
    play.timer = PresentationTimer::create(play.timebase.get(), timerError);
    if (!play.timer) fprintf(stderr, "sorvel: %s; sleeping on the host clock instead\n", timerError.c_str());
    flow.timer.store(play.timer.get());
    {
        RealTimePriority priority;
        presentAll(play);
        if (session) finishSound(*session, play, audioMode, sound);
        play.report.wall = std::max(0.0, (static_cast<double>(hostNow()) - static_cast<double>(play.startHost)) / 1e9);
    }
    stopReader(flow, readerThread);
    flow.timer.store(nullptr);
    play.timer.reset();
    if (play.progress) fprintf(stderr, "\r%*s\r", 80, "");

    if (options.json)
        writePlayJson(play, source->name(), sound);
    else
        printPlayText(play, source->name(), sound);
    fflush(stdout);
    if (flow.readerError) return reportError(*flow.readerError);
    if (gInterrupted) return kExitInterrupted;
    if (sound.state == "failed" && audioMode == audio::AudioMode::Pulse)
        return reportError({kExitFailure, "sound: " + sound.reason});
    return kExitOK;
}

}  // namespace sorvel::tool
