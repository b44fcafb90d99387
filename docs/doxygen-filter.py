#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Doxygen input filter: reads a public header and prints it with its plain
C comments turned into documentation comments, so the headers stay
ordinary C and the reference is still generated from them.

- the licence line becomes a blank line (line numbers are kept);
- the header's first block comment becomes its page (\\file);
- a comment on lines of its own documents the declaration after it;
- a comment after code on the same line documents that member (/**<);
- section banners (==== or ----) and comments on preprocessor lines stay
  plain;
- text that Doxygen would read as markup (<...>, @, \\, #name) is escaped.
"""
import re
import sys


def escape(text):
    text = text.replace("\\", "\\\\").replace("@", "\\@").replace("<", "&lt;").replace(">", "&gt;")
    text = text.replace("&lt;", "\\<").replace("&gt;", "\\>")
    text = re.sub(r"(^|\s)#(\w)", r"\1\\#\2", text)
    text = text.replace("%", "\\%")
    return text


def main(path):
    source = open(path, encoding="utf-8").read()
    out = []
    seen_file_comment = False
    i = 0
    n = len(source)
    line_start = True
    while i < n:
        if source.startswith("/*", i):
            end = source.find("*/", i + 2)
            end = n if end < 0 else end + 2
            comment = source[i:end]
            body = comment[2:-2]
            line_begin = source.rfind("\n", 0, i) + 1
            before = source[line_begin:i]
            if "SPDX-License-Identifier" in body:
                out.append("\n" * comment.count("\n"))
            elif before.lstrip().startswith("#") or "====" in body or "----" in body:
                out.append(comment)
            elif before.strip():
                out.append("/**<" + escape(body) + "*/")
            elif not seen_file_comment:
                seen_file_comment = True
                out.append("/** \\file\n" + escape(body) + "*/")
            else:
                out.append("/**" + escape(body) + "*/")
            i = end
            continue
        out.append(source[i])
        i += 1
    sys.stdout.write("".join(out))


if __name__ == "__main__":
    main(sys.argv[1])
