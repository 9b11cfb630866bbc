#!/usr/bin/env bash
# exports.sh LIBRARY ALLOWED INCLUDE_DIR...
# Fails when LIBRARY exports a dynamic symbol that no pattern of ALLOWED accepts, or a
# detail:: name of ours that no public header declares (hidden by default must mean hidden).
set -euo pipefail
lib=$1 allowed=$2
shift 2

mangled=$(nm -D --defined-only --just-symbols "$lib")
symbols=$(c++filt <<<"$mangled")
if ! grep -q '^foundation::storage::provider::StorageItem::copyFile' <<<"$symbols"; then
  echo "no public symbols found in $lib: is it the library?" >&2
  exit 1
fi

status=0
# Each symbol as "mangled<TAB>demangled"; a pattern applies to one of the two columns.
tab=$'\t'
demangled_patterns=$(grep -v -e '^#' -e '^$' -e '^mangled ' "$allowed" | sed -E "s/^\\^/^[^${tab}]*${tab}/")
mangled_patterns=$(grep '^mangled ' "$allowed" | sed -E 's/^mangled //')
unexpected=$(paste <(printf '%s\n' "$mangled") <(printf '%s\n' "$symbols") \
  | grep -v -E -f <(printf '%s\n' "$mangled_patterns") \
  | grep -v -E -f <(printf '%s\n' "$demangled_patterns") | cut -f2 || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exports of $(basename "$lib"):"
  echo "$unexpected"
  status=1
fi

# Our own internals live in detail namespaces; only those a public header names may leave.
for name in $(grep -o -E '^[^(]*(foundation|fl)::[a-z:]*detail::[A-Za-z_0-9]+' <<<"$symbols" | sed -E 's/.*detail::([A-Za-z_0-9]+)$/\1/' | sort -u); do
  if ! grep -r -q -w "$name" "$@"; then
    echo "exported detail name without a public declaration: $name"
    status=1
  fi
done

[ $status -eq 0 ] && echo "$(basename "$lib"): $(wc -l <<<"$symbols") exported symbols, all allowed"
exit $status
