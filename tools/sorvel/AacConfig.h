/* SPDX-License-Identifier: Apache-2.0 */
// The AAC profile an AudioSpecificConfig (an MP4 audio magic cookie)
// declares: its audio object type, with the SBR and PS extensions that make
// HE-AAC and HE-AACv2 whether they are signalled first (object type 5 or
// 29) or after the core configuration (sync extensions 0x2b7 and 0x548).
#ifndef SORVEL_TOOLS_SORVEL_AACCONFIG_H
#define SORVEL_TOOLS_SORVEL_AACCONFIG_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace sorvel::tool {

struct AacProfile {
    unsigned objectType = 0;       // the core's audio object type (2 for LC); 0: unreadable
    bool sbr = false, ps = false;  // spectral band replication, parametric stereo
};

// Reads `size` bytes of an AudioSpecificConfig; objectType stays 0 when the
// bytes end before the object type is known.
AacProfile readAacProfile(const uint8_t *config, size_t size);

// "LC", "Main", "LTP", "HE-AAC", "HE-AACv2", "LD", "ELD"...; "object type N"
// for the rarer ones; "" when nothing is known.
std::string aacProfileName(const AacProfile &profile);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_AACCONFIG_H
