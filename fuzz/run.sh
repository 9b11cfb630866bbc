#!/usr/bin/env bash
# Runs the libFuzzer targets: fuzz/run.sh SECONDS [TARGET...]
#
# Configures and builds the 'fuzz' preset when needed (only the fuzz targets and what they
# link), runs each target (default: all) for SECONDS over a scratch copy of its seed corpus in
# fuzz/corpus-run/, prints one line per target and exits non-zero when any target found a
# crash, a leak, a timeout or a broken property. Inputs that failed are left in
# fuzz/corpus-run/<target>-artifacts/; each run's log is fuzz/corpus-run/<target>.log.
set -euo pipefail

usage() { echo "usage: $0 SECONDS [TARGET...]   (targets: ${all[*]})" >&2; exit 2; }

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(dirname "$here")
all=(storage_iri common_forms path_view canonicalize platform_iri zip_archive)

[[ $# -ge 1 && $1 =~ ^[0-9]+$ && $1 -gt 0 ]] || usage
seconds=$1
shift
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=("${all[@]}")
for t in "${targets[@]}"; do
  t=${t%_fuzz}
  [[ " ${all[*]} " == *" $t "* ]] || { echo "unknown target: $t" >&2; usage; }
done

cd "$root"
build=build/fuzz
if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake --preset fuzz >/dev/null
fi
cmake --build --preset fuzz -j2 --target "${targets[@]/%/_fuzz}" >/dev/null 2>"$build/fuzz-build.err" || {
  cat "$build/fuzz-build.err" >&2
  echo "fuzz build failed" >&2
  exit 1
}

# Sanitizer reports end the run; UBSan reports are fatal and leaks are reported at exit.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:symbolize=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
mkdir -p fuzz/corpus-run
for t in "${targets[@]}"; do
  t=${t%_fuzz}
  work=fuzz/corpus-run/$t
  artifacts=fuzz/corpus-run/$t-artifacts
  log=fuzz/corpus-run/$t.log
  rm -rf "$work" "$artifacts"
  mkdir -p "$work" "$artifacts"
  cp -R fuzz/corpus/"$t"/. "$work"/
  set +e
  "$build/fuzz/${t}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" >"$log" 2>&1
  rc=$?
  set -e
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  [[ -n $runs ]] || runs=$(grep -o '^#[0-9]*' "$log" | tail -1 | tr -d '#')
  found=$(find "$artifacts" -type f | head -1)
  if [[ $rc -eq 0 && -z $found ]]; then
    result=ok
  else
    status=1
    kind=$(grep -o -m1 -E 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)[^(]*|runtime error:.*|PROPERTY BROKEN:.*' "$log" || true)
    result="FAILED (exit $rc${kind:+: $kind}${found:+; input $found}; log $log)"
  fi
  printf '%-14s %10s executions in %ss: %s\n' "$t" "${runs:-0}" "$seconds" "$result"
done
exit $status
