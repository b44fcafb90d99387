/* SPDX-License-Identifier: Apache-2.0 */
// A small streaming JSON writer for the tool's --json output: objects,
// arrays, strings with escapes, integers and doubles (non-finite as null).
#ifndef SORVEL_TOOLS_SORVEL_JSON_H
#define SORVEL_TOOLS_SORVEL_JSON_H

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace sorvel::tool {

class JsonWriter {
public:
    explicit JsonWriter(FILE *out) : out_(out) {}

    void beginObject(const char *key = nullptr) { open(key, '{'); }
    void endObject() { close('}'); }
    void beginArray(const char *key = nullptr) { open(key, '['); }
    void endArray() { close(']'); }

    void string(const char *key, const std::string &value) {
        prefix(key);
        quote(value);
    }
    void integer(const char *key, long long value) {
        prefix(key);
        fprintf(out_, "%lld", value);
    }
    void number(const char *key, double value) {
        prefix(key);
        if (std::isfinite(value))
            fprintf(out_, "%.6f", value);
        else
            fputs("null", out_);
    }
    void boolean(const char *key, bool value) {
        prefix(key);
        fputs(value ? "true" : "false", out_);
    }
    void null(const char *key) {
        prefix(key);
        fputs("null", out_);
    }
    // Compact one-line object: used for the rows of long tables.
    void beginRow() {
        open(nullptr, '{');
        compact_ = depth_.size();
    }
    void endRow() {
        close('}');
        compact_ = 0;
    }
    void finish() { fputc('\n', out_); }

private:
    void open(const char *key, char bracket) {
        prefix(key);
        fputc(bracket, out_);
        depth_.push_back(true);
    }
    void close(char bracket) {
        const bool empty = depth_.back();
        depth_.pop_back();
        if (!empty && !inCompact()) newline();
        fputc(bracket, out_);
    }
    void prefix(const char *key) {
        if (!depth_.empty()) {
            if (!depth_.back()) fputc(',', out_);
            depth_.back() = false;
            if (inCompact())
                fputc(' ', out_);
            else
                newline();
        }
        if (key) {
            quote(key);
            fputs(": ", out_);
        }
    }
    bool inCompact() const { return compact_ && depth_.size() >= compact_; }
    void newline() {
        fputc('\n', out_);
        for (size_t i = 0; i < depth_.size(); ++i) fputs("  ", out_);
    }
    void quote(const std::string &text) {
        fputc('"', out_);
        for (unsigned char c : text) {
            switch (c) {
                case '"':
                    fputs("\\\"", out_);
                    break;
                case '\\':
                    fputs("\\\\", out_);
                    break;
                case '\n':
                    fputs("\\n", out_);
                    break;
                case '\t':
                    fputs("\\t", out_);
                    break;
                case '\r':
                    fputs("\\r", out_);
                    break;
                default:
                    if (c < 0x20)
                        fprintf(out_, "\\u%04x", c);
                    else
                        fputc(c, out_);
            }
        }
        fputc('"', out_);
    }

    FILE *out_;
    std::vector<bool> depth_;  // per open container: nothing written yet
    size_t compact_ = 0;
};

}  // namespace sorvel::tool

#endif  // SORVEL_TOOLS_SORVEL_JSON_H
