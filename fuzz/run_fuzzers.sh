#!/usr/bin/env bash
# Runs the fuzz targets of the fuzz preset for a bounded time each, on their seed corpora, and
# fails when any of them finds a crash, an overrun, a leak, undefined behaviour, a broken check
# or a call over 10 s.
#
# usage: fuzz/run_fuzzers.sh SECONDS [TARGET...]     (targets: ini records chain raw_file png
#                                                     calibration imgproc dicom; default all)
# New inputs go to build/fuzz/run/corpus/TARGET (the seeds in fuzz/corpus/TARGET stay as they
# are), findings to build/fuzz/run/findings/TARGET, each run's output to build/fuzz/run/TARGET.log.
# With FUZZ_LOCK=FILE each target runs under flock FILE, so that others can build in between.
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(ini records chain raw_file png calibration imgproc dicom)
bin=build/fuzz/bin
work=build/fuzz/run
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

lock=()
[ -n "${FUZZ_LOCK:-}" ] && lock=(flock "$FUZZ_LOCK")
failed=0
summary=()
for t in "${targets[@]}"; do
    exe=$bin/fuzz_$t
    if [ ! -x "$exe" ]; then
        summary+=("$(printf '%-12s not built (%s)' "$t" "$exe")")
        failed=1
        continue
    fi
    corpus=$work/corpus/$t
    findings=$work/findings/$t
    log=$work/$t.log
    mkdir -p "$corpus" "$findings"
    "${lock[@]}" "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2560 \
        -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" "fuzz/corpus/$t" >"$log" 2>&1
    rc=$?
    execs=$(grep -a 'stat::number_of_executed_units' "$log" | tail -1 | awk '{print $2}')
    if [ $rc -eq 0 ]; then
        summary+=("$(printf '%-12s ok      %4d s %10s inputs' "$t" "$seconds" "${execs:-?}")")
    else
        failed=1
        summary+=("$(printf '%-12s FINDING %4d s %10s inputs, see %s' "$t" "$seconds" "${execs:-?}" "$log")")
        grep -a -m1 -E 'check failed|ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error' -A1 "$log"
        ls "$findings"
    fi
done
printf '%s\n' "${summary[@]}"
exit $failed
