// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the Annex B enumerators and the emulation-
// prevention removal, and checks what callers rely on: every reported unit
// lies inside the input (libFuzzer's buffer is exactly its size), units come
// in order without overlapping, the counts match the reports, the flexible
// enumerator agrees with a plain position-by-position reading of its rule,
// and unemulation never grows a unit.
//
// The first input byte picks the strict enumerator's start-code length
// (0 to 5); the rest is the stream.

#include <Block.h>
#include <Sorvel/SVNALUnit.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

bool isStartCode(const uint8_t *p) {
    return p[0] == 0 && p[1] == 0 && p[2] == 1;
}

// The flexible rule, one position at a time: (offset, length) per unit.
std::vector<std::pair<size_t, size_t>> reference(const uint8_t *d, size_t len) {
    std::vector<std::pair<size_t, size_t>> out;
    if (len <= 3) return out;
    size_t cur = len;
    for (size_t p = 0; p + 4 <= len; ++p)
        if (isStartCode(d + p)) {
            cur = p;
            break;
        }
    if (cur == len) return out;
    for (;;) {
        size_t next = len;
        for (size_t p = cur + 3; p + 3 <= len; ++p)
            if (isStartCode(d + p)) {
                next = p;
                break;
            }
        if (next == len) {
            if (cur + 3 < len) out.push_back({cur + 3, len - cur - 3});
            return out;
        }
        size_t unit = next - cur - 3;
        if (unit > 0 && d[next - 1] == 0) --unit;
        if (unit) out.push_back({cur + 3, unit});
        cur = next;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size) {
    if (size < 1) return 0;
    const int32_t startCodeLength = input[0] % 6;
    const uint8_t *data = input + 1;
    const size_t length = size - 1;
    const uint8_t *end = data + length;

    __block const uint8_t *previousEnd = data;
    __block size_t reported = 0;
    const size_t strictCount =
        _SVEnumerateAnnexBNALUnits(data, length, startCodeLength, ^int(const uint8_t *unit, size_t unitLength) {
          check(unit >= previousEnd && unitLength > 0);
          check(unitLength <= static_cast<size_t>(end - unit));
          previousEnd = unit + unitLength;
          ++reported;
          return 0;
        });
    check(strictCount == reported);
    check(_SVEnumerateAnnexBNALUnits(data, length, startCodeLength, nullptr) == strictCount);

    const std::vector<std::pair<size_t, size_t>> expected = reference(data, length);
    __block size_t index = 0;
    __block std::vector<uint8_t> scratch;
    const size_t flexibleCount =
        _SVEnumerateAnnexBNALUnitsFlexible(data, length, ^int(const uint8_t *unit, size_t unitLength) {
          check(index < expected.size());
          check(static_cast<size_t>(unit - data) == expected[index].first && unitLength == expected[index].second);
          ++index;
          scratch.assign(unitLength, 0);
          check(_SVUnemulateNALData(unit, unitLength, scratch.data()) <= unitLength);
          return 0;
        });
    check(flexibleCount == expected.size() && index == expected.size());

    // In place, over a copy of the whole stream.
    std::vector<uint8_t> copy(data, end);
    const size_t written = _SVUnemulateNALData(copy.data(), copy.size(), copy.data());
    check(written <= length);
    check(length == 0 || written > 0);
    return 0;
}
