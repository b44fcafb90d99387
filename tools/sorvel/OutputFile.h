/* SPDX-License-Identifier: Apache-2.0 */
// Every file the tool writes goes through OutputFile: the bytes go to a
// temporary file beside the output, which takes the output's name only when
// everything was written.  An interrupted or failed run leaves neither a
// half output nor the temporary file (SIGINT, SIGTERM, SIGHUP and SIGPIPE
// remove it; only SIGKILL can leave it).  The output is never the input
// (same file, also through hard or symbolic links) and never replaces an
// existing file unless asked.  "-" is standard output, written directly.
#ifndef SORVEL_TOOLS_SORVEL_OUTPUTFILE_H
#define SORVEL_TOOLS_SORVEL_OUTPUTFILE_H

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>

#include "Tool.h"

namespace sorvel::tool {

class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile();  // removes the temporary file unless commit() succeeded
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    // Checks `path` against `input` (empty: no input file) and opens the
    // temporary file.  False with `error` set when the output may not or
    // cannot be written.
    bool open(const std::string &path, const std::string &input, bool overwrite, ToolError &error);
    FILE *stream() const { return stream_; }
    // Reserves about `bytes` of disk for the output before it is written
    // (fewer, larger allocations by the file system; a failure is ignored).
    // commit() cuts the file back to what was written, which must then be
    // everything up to the descriptor's position.  No effect on standard
    // output.
    void preallocate(off_t bytes);
    bool isStandardOutput() const { return path_ == "-"; }
    // Closes the temporary file and gives it the output's name.
    bool commit(ToolError &error);

private:
    void discard();

    std::string path_, temporary_;
    FILE *stream_ = nullptr;
    // The stream's buffer: large, so that a conversion makes a few large
    // writes instead of two per sample.
    std::unique_ptr<char[]> buffer_;
    bool overwrite_ = false;
    bool preallocated_ = false;
};

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_OUTPUTFILE_H
