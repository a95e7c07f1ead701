#!/usr/bin/env bash
# Lists the global symbols that the libraries define and compares them with what is
# allowed, so that no internal name leaks into a consumer's namespace:
#   - the shared library exports exactly the names of shared.txt (every one of them in
#     a full build; in a portable build, which leaves the inventory out, a subset), each
#     under the version node FSIC_0;
#   - every strong global symbol of the static library matches a pattern of
#     static.txt (the public and underscore-internal C names, and C++ names inside
#     fsic::detail).
#   check_symbols.sh <libfsic.so> <libfsic.a> <dir of the lists> <exact|subset>
set -euo pipefail
so=$1 ar=$2 lists=$3 mode=$4
fail=0

exported=$(nm -D --defined-only --with-symbol-versions "$so" | awk '{print $3}' | sort -u)
unversioned=$(grep -v '@@FSIC_0$' <<<"$exported" | grep -v '^FSIC_0$' || true)
if [[ -n $unversioned ]]; then
  echo "exported without the version node FSIC_0:"; sed 's/^/  /' <<<"$unversioned"; fail=1
fi
names=$(sed -n 's/@@FSIC_0$//p' <<<"$exported" | sort -u)
allowed=$(grep -v '^#' "$lists/shared.txt" | grep -v '^$' | sort -u)
extra=$(comm -23 <(echo "$names") <(echo "$allowed"))
if [[ -n $extra ]]; then
  echo "exported by $so but not allowed (shared.txt):"; sed 's/^/  /' <<<"$extra"; fail=1
fi
if [[ $mode == exact ]]; then
  missing=$(comm -13 <(echo "$names") <(echo "$allowed"))
  if [[ -n $missing ]]; then
    echo "allowed (shared.txt) but not exported by $so:"; sed 's/^/  /' <<<"$missing"; fail=1
  fi
fi
echo "$so: $(wc -l <<<"$names") exported names"

# Strong definitions only (T, D, B, R, ...): weak ones (W, V, u) are template and inline
# instances that the linker merges with a consumer's own.
strong=$(nm -g --defined-only "$ar" 2>/dev/null | awk 'NF == 3 && $2 !~ /^[WVvwu]$/ {print $3}' | sort -u)
patterns=$(grep -v '^#' "$lists/static.txt" | grep -v '^$')
bad=$(grep -Ev -f <(echo "$patterns") <<<"$strong" || true)
if [[ -n $bad ]]; then
  echo "defined by $ar outside the allowed patterns (static.txt):"
  while read -r s; do echo "  $s ($(c++filt "$s"))"; done <<<"$bad"
  fail=1
fi
echo "$ar: $(wc -l <<<"$strong") strong global symbols"
exit $fail
