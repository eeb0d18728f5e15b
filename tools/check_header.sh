#!/bin/sh
# Consistency check of the public header and the export list:
#  - both files are what tools/gen_header.py produces (no hand edits);
#  - the names declared in include/orsm.h are exactly api/orsm.exports;
#  - the header compiles cleanly as C99 and as C++20.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
CC=${CC:-cc}
CXX=${CXX:-c++}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

python3 tools/gen_header.py --check

grep -o 'orsm[A-Za-z0-9]*_[A-Za-z0-9_]*(' include/orsm.h | tr -d '(' >"$tmp/names"
printf 'orsmGetLibVersion\n' >>"$tmp/names"
LC_ALL=C sort -u "$tmp/names" >"$tmp/sorted"
LC_ALL=C sort -c api/orsm.exports
diff -u api/orsm.exports "$tmp/sorted"
test "$(wc -l <api/orsm.exports)" -eq 689

printf '#include "orsm.h"\nint main(void) { return orsmGetLibVersion() == 0; }\n' >"$tmp/t.c"
cp "$tmp/t.c" "$tmp/t.cpp"
$CC -std=c99 -Wall -Wextra -pedantic -Werror -fsyntax-only -Iinclude "$tmp/t.c"
$CXX -std=c++20 -Wall -Wextra -pedantic -Werror -fsyntax-only -Iinclude "$tmp/t.cpp"
echo "header check passed"
