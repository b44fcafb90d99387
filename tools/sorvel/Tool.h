/* SPDX-License-Identifier: Apache-2.0 */
// Shared pieces of the `sorvel` command: exit codes, the error type every
// subcommand reports through, and an owning reference for runtime objects.
#ifndef SORVEL_TOOLS_SORVEL_TOOL_H
#define SORVEL_TOOLS_SORVEL_TOOL_H

#include <CoreFoundation/CoreFoundation.h>
#include <Sorvel/Sorvel.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace sorvel::tool {

// Exit statuses, stable so that scripts can tell failures apart.
enum ExitCode : int {
    kExitOK = 0,
    kExitFailure = 1,        // an output could not be written, or the library refused something
    kExitUsage = 2,          // bad command line
    kExitCannotOpen = 3,     // missing, unreadable, or not a media file
    kExitNoVideo = 4,        // the file has no video stream
    kExitUnsupported = 5,    // the video is not H.264 or HEVC, or cannot be played as asked
    kExitTruncated = 6,      // the file ends early or holds damaged samples
    kExitInterrupted = 130,  // play stopped by Ctrl-C or SIGTERM, after its report (128 + SIGINT)
};

struct ToolError {
    ExitCode code;
    std::string message;
};

// Owns one reference to a runtime object; releases it when it goes.
template <typename T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T object) noexcept : object_(object) {}
    Ref(const Ref &other) noexcept : object_(other.object_) {
        if (object_) CFRetain(object_);
    }
    Ref(Ref &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref &operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_) CFRelease(object_);
    }
    static Ref retain(T object) noexcept {
        if (object) CFRetain(object);
        return Ref(object);
    }
    T get() const noexcept { return object_; }
    T *out() noexcept {  // for Create/Copy out-parameters
        *this = Ref();
        return &object_;
    }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    T object_ = nullptr;
};

// NAL unit types the tool looks for.
constexpr unsigned kH264NAL_IDRSlice = 5, kH264NAL_SEI = 6, kH264NAL_SPS = 7, kH264NAL_PPS = 8;
constexpr unsigned kHEVCNAL_FirstIRAP = 16,  // BLA_W_LP
    kHEVCNAL_LastIRAP = 23,                  // RSV_IRAP_VCL23
    kHEVCNAL_VPS = 32, kHEVCNAL_SPS = 33, kHEVCNAL_PPS = 34, kHEVCNAL_PrefixSEI = 39, kHEVCNAL_SuffixSEI = 40;

// "avc1" for 'avc1'; unprintable bytes become '.'.
std::string fourCC(FourCharCode code);
// The text of a CFString (UTF-8), "" for NULL or a non-string.
std::string utf8(CFTypeRef string);
// printf into a std::string.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// The bytes of a sample buffer whose data lies in one piece, as the tool's
// samples always do; false without data or with data in pieces.
bool sampleBytes(SVSampleBufferRef buffer, const uint8_t *&bytes, size_t &size);
// Seconds of a numeric time; NaN for invalid or infinite times.
double seconds(SVTime time);
// The NAL unit type name ("IDR", "SPS", "TRAIL_R"...) for an 'avc1' or 'hvc1' stream.
const char *nalUnitTypeName(FourCharCode codec, unsigned type);
unsigned nalUnitType(FourCharCode codec, uint8_t firstByte);
// Bytes of the NAL unit header: 1 for H.264, 2 for HEVC.
size_t nalUnitHeaderSize(FourCharCode codec);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_TOOL_H
