/* SPDX-License-Identifier: Apache-2.0 */
// The subcommands of `sorvel` and their options.
#ifndef SORVEL_TOOLS_SORVEL_COMMANDS_H
#define SORVEL_TOOLS_SORVEL_COMMANDS_H

#include <cmath>
#include <string>

#include "Tool.h"

namespace sorvel::tool {

struct ProbeOptions {
    std::string file;  // empty: the embedded stream
    bool json = false;
    bool samples = false;
};

struct AnnexBOptions {
    std::string input;       // empty: the embedded stream
    std::string output;      // "-": standard output
    bool overwrite = false;  // replace an existing output file
};

struct PlayOptions {
    std::string file;
    double rate = 1.0;
    double start = NAN;     // seconds; NaN: the first sample (the end when reversing)
    double duration = NAN;  // seconds; NaN: to the end (the start when reversing)
    bool progress = true;   // a progress line when standard error is a terminal
    bool json = false;
    std::string audio = "auto";  // auto, pulse or none: how the sound is played
};

int runProbe(const ProbeOptions &options);
int runAnnexB(const AnnexBOptions &options);
int runPlay(const PlayOptions &options);

// Prints "sorvel: message" on standard error and returns the error's code;
// after reportErrorsAsJson(true) also {"error": {"code", "message"}} on
// standard output, for callers that read the JSON.
int reportError(const ToolError &error);
void reportErrorsAsJson(bool json);

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_COMMANDS_H
