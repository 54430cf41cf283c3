#!/usr/bin/env bash
# Test code against the rest of the code, in lines: tracked .c .cc .cpp .h .hpp .py .sh files,
# those under tests/ against all the others, generated tables (*tables.cpp) left out of both.
# Usage: tools/count_test_ratio.sh [LIMIT]   exits 1 when the ratio is above LIMIT (e.g. 0.40).
set -euo pipefail
cd "$(git -C "$(dirname "$0")" rev-parse --show-toplevel)"
count() { xargs -r -0 cat -- | wc -l; }
files() { git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' '*.py' '*.sh' |
          grep -z -v 'tables\.cpp$' || true; }
tests=$(files | grep -z '^tests/' | count)
code=$(files | grep -z -v '^tests/' | count)
awk -v t="$tests" -v c="$code" -v limit="${1:-}" 'BEGIN {
  r = (c > 0) ? t / c : 0
  printf "tests %d lines, code %d lines, ratio %.2f\n", t, c, r
  if (limit != "" && r > limit + 0) { printf "above %s\n", limit; exit 1 }
}'
