/* SPDX-License-Identifier: Apache-2.0 */
// The bitstream layer's one bit reader, used by the decoder-configuration
// record converters, the parameter-set parsers and the sample-description
// readers above them.
#ifndef SORVEL_SOURCES_SVBITREADER_H
#define SORVEL_SOURCES_SVBITREADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace sorvel {

// MSB-first reader over bytes as given: emulation prevention is the
// caller's (unescape an RBSP first with SVUnescapeRBSP; records and
// configuration boxes hold none).  A read past the end yields zero bits,
// does not advance and sets a sticky error flag, so a strict parser checks
// `failed()` once at its end (and before any loop whose bound comes from the
// stream), while a lenient one ignores the flag and gets zero-filled values.
class SVBitReader {
public:
    SVBitReader(const uint8_t *data, size_t size) noexcept : data_(data), bits_(data ? size * 8 : 0) {}

    uint32_t bits(unsigned count) noexcept {
        uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i) value = (value << 1) | bit();
        return value;
    }
    uint32_t bit() noexcept {
        if (position_ >= bits_) {
            failed_ = true;
            return 0;
        }
        const uint32_t value = (data_[position_ >> 3] >> (7 - (position_ & 7))) & 1;
        ++position_;
        return value;
    }
    void skip(size_t count) noexcept {
        if (count > bits_ - position_) {
            failed_ = true;
            position_ = bits_;
        } else {
            position_ += count;
        }
    }
    // Copies `count` bytes (zeros past the end) to out, or only skips them
    // when out is null.
    void readBytes(uint8_t *out, size_t count) noexcept {
        if ((position_ & 7) != 0) {
            for (size_t i = 0; i < count; ++i) {
                const uint8_t byte = static_cast<uint8_t>(bits(8));
                if (out) out[i] = byte;
            }
            return;
        }
        const size_t available = (bits_ - position_) / 8;
        const size_t real = count < available ? count : available;
        if (out) {
            if (real) std::memcpy(out, data_ + position_ / 8, real);
            if (count > real) std::memset(out + real, 0, count - real);
        }
        if (count > real) failed_ = true;
        position_ += real * 8;
    }
    // Exp-Golomb; codes longer than 32 bits are malformed and fail.
    uint32_t ue() noexcept {
        unsigned zeros = 0;
        while (bit() == 0) {
            if (failed_ || ++zeros > 31) {
                failed_ = true;
                return 0;
            }
        }
        return static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + bits(zeros));
    }
    int32_t se() noexcept {
        const uint32_t code = ue();
        return (code & 1) ? static_cast<int32_t>((code >> 1) + 1) : -static_cast<int32_t>(code >> 1);
    }
    // The value when it is at most `max`; else fails and gives 0, so that
    // no caller computes with a value its syntax rules out (an offset by
    // one of 2^31 overflows).
    uint32_t ue(uint32_t max) noexcept {
        const uint32_t value = ue();
        if (value <= max) return value;
        failed_ = true;
        return 0;
    }
    // The value when it lies in [min, max]; else fails and gives 0.
    int32_t se(int32_t min, int32_t max) noexcept {
        const int32_t value = se();
        if (value >= min && value <= max) return value;
        failed_ = true;
        return 0;
    }
    void fail() noexcept { failed_ = true; }
    bool failed() const noexcept { return failed_; }

private:
    const uint8_t *data_;
    size_t bits_;
    size_t position_ = 0;
    bool failed_ = false;
};

}  // namespace sorvel

#endif  // SORVEL_SOURCES_SVBITREADER_H
