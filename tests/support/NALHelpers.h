/* SPDX-License-Identifier: Apache-2.0 */
// Collecting what the NAL enumerators and record converters give, shared by
// the bytes-layer tests and the sample writer's tests.
#ifndef SORVEL_TESTS_SUPPORT_NALHELPERS_H
#define SORVEL_TESTS_SUPPORT_NALHELPERS_H

#include <Sorvel/SVNALUnit.h>

#include <cstddef>
#include <vector>

#include "core/SVObject.h"
#include "support/TestData.h"

namespace sorvel_test {

using sorvel::SVRetained;

struct Report {
    size_t count;
    Units units;
    std::vector<size_t> offsets;
};

inline Report flexible(const Bytes &data) {
    __block Report report{};
    const uint8_t *base = data.data();
    report.count =
        _SVEnumerateAnnexBNALUnitsFlexible(data.data(), data.size(), ^int(const uint8_t *unit, size_t length) {
          report.units.emplace_back(unit, unit + length);
          report.offsets.push_back(static_cast<size_t>(unit - base));
          return 0;
        });
    return report;
}

inline SVRetained<CFMutableDataRef> convert(const Bytes &record, bool hevc, int32_t *headerLength, OSStatus *status) {
    CFMutableDataRef data = nullptr;
    *status = hevc ? _SVCreateConcatenatedParameterSetsFromHEVCDecoderConfigurationRecord(record.data(), record.size(),
                                                                                          headerLength, &data)
                   : _SVCreateConcatenatedParameterSetsFromAVCDecoderConfigurationRecord(record.data(), record.size(),
                                                                                         headerLength, &data);
    return SVRetained<CFMutableDataRef>(data);
}

inline Bytes bytesOf(CFDataRef data) {
    const uint8_t *p = CFDataGetBytePtr(data);
    return Bytes(p, p + CFDataGetLength(data));
}

}  // namespace sorvel_test

#endif  // SORVEL_TESTS_SUPPORT_NALHELPERS_H
