// SPDX-License-Identifier: Apache-2.0
// libpulse, loaded the first time sound is played rather than when the
// program starts.  Linked in, libpulse brings ten more libraries that every
// run of every command would load and relocate (about 1 ms each time, for
// a probe or a conversion that never plays a sound).
#ifndef SORVEL_TOOLS_SORVEL_AUDIO_PULSELIBRARY_H
#define SORVEL_TOOLS_SORVEL_AUDIO_PULSELIBRARY_H

#include <pulse/pulseaudio.h>

#include <string>

namespace sorvel::tool::audio {

// Every libpulse function the tool calls, without its pa_ prefix.
#define SORVEL_PULSE_FUNCTIONS(X)    \
    X(channel_map_compatible)        \
    X(channel_map_init)              \
    X(channel_map_init_extend)       \
    X(channel_map_valid)             \
    X(context_connect)               \
    X(context_disconnect)            \
    X(context_errno)                 \
    X(context_get_server_info)       \
    X(context_get_state)             \
    X(context_new)                   \
    X(context_rttime_new)            \
    X(context_rttime_restart)        \
    X(context_set_state_callback)    \
    X(context_unref)                 \
    X(frame_size)                    \
    X(gettimeofday)                  \
    X(operation_cancel)              \
    X(operation_get_state)           \
    X(operation_unref)               \
    X(rtclock_now)                   \
    X(sample_spec_valid)             \
    X(stream_connect_playback)       \
    X(stream_cork)                   \
    X(stream_disconnect)             \
    X(stream_drain)                  \
    X(stream_get_state)              \
    X(stream_get_timing_info)        \
    X(stream_get_underflow_index)    \
    X(stream_new)                    \
    X(stream_set_state_callback)     \
    X(stream_set_underflow_callback) \
    X(stream_set_write_callback)     \
    X(stream_unref)                  \
    X(stream_update_timing_info)     \
    X(stream_writable_size)          \
    X(stream_write)                  \
    X(strerror)                      \
    X(threaded_mainloop_free)        \
    X(threaded_mainloop_get_api)     \
    X(threaded_mainloop_lock)        \
    X(threaded_mainloop_new)         \
    X(threaded_mainloop_signal)      \
    X(threaded_mainloop_start)       \
    X(threaded_mainloop_stop)        \
    X(threaded_mainloop_unlock)      \
    X(threaded_mainloop_wait)        \
    X(timeval_load)                  \
    X(usec_to_bytes)

// The functions, each as its pa_ name without the prefix:
// pulse().stream_write(...) is pa_stream_write(...).
struct PulseLibrary {
#define SORVEL_PULSE_MEMBER(name) decltype(&::pa_##name) name;
    SORVEL_PULSE_FUNCTIONS(SORVEL_PULSE_MEMBER)
#undef SORVEL_PULSE_MEMBER
};

// Loads libpulse (the name in SORVEL_PULSE_LIBRARY when set, else
// libpulse.so.0) once per process.  False, with why in `error`, when it
// cannot be loaded or lacks a function; every later call then says the same.
bool loadPulse(std::string &error);

// The loaded functions; only after loadPulse() succeeded.
const PulseLibrary &pulse();

}  // namespace sorvel::tool::audio

#endif  // SORVEL_TOOLS_SORVEL_AUDIO_PULSELIBRARY_H
