#!/bin/bash
# Prints the coverage of src/ by the last test run in a --coverage build
# folder: gcovr's summary (lines, branches, functions), then one line per
# subsystem. Generated tables are left out.
set -euo pipefail
build=${1:?usage: coverage-summary.sh BUILD_DIR}
root=$(cd "$(dirname "$0")/.." && pwd)
json=$(mktemp)
trap 'rm -f "$json"' EXIT
# Only the library's objects: the test programs are not measured. A count
# that a dying test child left half-written is skipped, not fatal.
gcovr -r "$root" "$build/CMakeFiles/qkcommon.dir" --gcov-ignore-parse-errors -f "$root/src/" -e '.*/generated/.*' \
    --json-summary "$json" --print-summary
python3 - "$json" <<'PY'
import json, sys
from collections import defaultdict
data = json.load(open(sys.argv[1]))
totals = defaultdict(lambda: [0] * 6)
for f in data["files"]:
    parts = f["filename"].split("/")
    name = parts[1] if parts[0] == "src" and len(parts) > 2 else "?"
    t = totals[name]
    for i, key in enumerate(("line_covered", "line_total", "branch_covered",
                             "branch_total", "function_covered", "function_total")):
        t[i] += f[key]
pct = lambda a, b: 100.0 * a / b if b else 100.0
print(f"{'subsystem':<12}{'lines':>16}{'branches':>16}{'functions':>16}")
for name in sorted(totals):
    t = totals[name]
    print(f"{name:<12}" + "".join(f"{pct(t[i], t[i + 1]):>9.1f}% {t[i + 1]:>5}" for i in (0, 2, 4)))
PY
