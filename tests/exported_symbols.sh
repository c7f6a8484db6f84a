#!/bin/sh
# Checks that a library's dynamic symbol table holds exactly the names that its public
# headers mark for export: no C++ internals, no helpers, nothing missing.
#   exported_symbols.sh LIBRARY HEADER-DIRECTORY [EXPORT-MACRO, default VESK_API]
set -eu
lib=$1
headers=$2
macro=${3:-VESK_API}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# AddressSanitizer adds an __odr_asan marker for each exported variable; those are its own.
nm -D --defined-only "$lib" | awk 'NF == 3 && $2 ~ /^[A-Za-z]$/ && $3 !~ /^__odr_asan/ {print $3}' |
        sort -u >"$work/exported"

# The declared name is the last identifier before the first "(" (functions) or the ";" (variables);
# "(name)(" and "(*name)(" are unwrapped first.
cat "$headers"/*.h | grep "^$macro" |
        sed -E 's/\(\*?([A-Za-z_][A-Za-z0-9_]*)\)\(/ \1(/' |
        awk '{ line = $0; p = index(line, "("); if (p == 0) p = index(line, ";");
               head = substr(line, 1, p - 1); n = split(head, w, /[^A-Za-z0-9_]+/);
               for (i = n; i > 0; i--) if (w[i] != "") { print w[i]; break } }' | sort -u >"$work/declared"

status=0
extra=$(comm -23 "$work/exported" "$work/declared")
missing=$(comm -13 "$work/exported" "$work/declared")
if [ -n "$extra" ]; then
        echo "exported but not declared in a public header:"; echo "$extra"; status=1
fi
if [ -n "$missing" ]; then
        echo "declared in a public header but not exported:"; echo "$missing"; status=1
fi
[ $status -eq 0 ] && echo "$(wc -l <"$work/exported") exported names, all declared"
exit $status
