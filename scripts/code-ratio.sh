#!/usr/bin/env bash
# Prints the size of the tests against the size of the code: non-blank lines
# that are not only a comment, in the .c/.cc/.cpp/.h/.hpp/.py/.sh files that
# git tracks; tests and fuzz against src, include and host.  The project keeps
# the ratio between 0.25 and 0.35.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- src include host tests fuzz | python3 -c '
import re, sys
counts = {"code": 0, "tests": 0}
for path in sys.stdin.read().split("\0"):
    if not re.search(r"\.(c|cc|cpp|h|hpp|py|sh)$", path):
        continue
    script = path.endswith((".py", ".sh"))
    in_block = False
    lines = 0
    for line in open(path, encoding="utf-8", errors="replace"):
        text = line.strip()
        if not text:
            continue
        if script:
            if not text.startswith("#"):
                lines += 1
            continue
        if in_block:
            if "*/" in text:
                in_block = False
            continue
        if text.startswith("//"):
            continue
        if text.startswith("/*"):
            in_block = "*/" not in text
            continue
        lines += 1
    counts["tests" if path.startswith(("tests/", "fuzz/")) else "code"] += lines
tests, code = counts["tests"], counts["code"]
print(f"test code {tests} lines, code {code} lines: ratio {tests / code:.2f} (aim 0.25 to 0.35)")
'
