#!/usr/bin/env bash
# The shared library exports exactly the functions and data that the public
# header declares with VX_API, and the linker map lists the same names.
set -euo pipefail
lib=$1 header=$2 map=$3

# Declarations start a line with "VX_API"; the macro's own definition does not.
declared=$(grep -E '^VX_API ' "$header" |
           sed -E 's/^VX_API[^(;]*[ *]([A-Za-z_][A-Za-z0-9_]*) *[(;].*/\1/' | sort -u)
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort -u)
mapped=$(sed -n '/global:/,/local:/p' "$map" | grep -oE '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*;' |
         tr -d ' ;' | sort -u)

status=0
if [ "$declared" != "$exported" ]; then
  echo "exports differ from the header:"; diff <(echo "$declared") <(echo "$exported") || true
  status=1
fi
if [ "$declared" != "$mapped" ]; then
  echo "linker map differs from the header:"; diff <(echo "$declared") <(echo "$mapped") || true
  status=1
fi
[ $status -eq 0 ] && echo "exports: $(echo "$exported" | wc -l) symbols, all declared in the header"
exit $status
