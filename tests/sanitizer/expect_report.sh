#!/usr/bin/env bash
# expect_report.sh PROBE FAULT ARG REPORT: runs the probe with one deliberate
# fault and passes only when the sanitizer reported REPORT and stopped the
# process with a failing status before it could print "survived".
set -uo pipefail
probe=$1 fault=$2 arg=$3 report=$4
if [[ $fault == leak && ${ASAN_OPTIONS:-} == *detect_leaks=0* ]]; then
  echo "skipped: ASAN_OPTIONS has detect_leaks=0 (LeakSanitizer cannot run here)"
  exit 77
fi
out=$("$probe" "$fault" "$arg" 2>&1)
status=$?
printf '%s\n' "$out" | tail -n 20
if ((status == 0)); then
  echo "FAIL: the $fault probe exited 0: the fault was not fatal"
  exit 1
fi
if [[ $out == *survived* ]]; then
  echo "FAIL: the $fault probe went on after the report: errors are being recovered from"
  exit 1
fi
if [[ $out != *"$report"* ]]; then
  echo "FAIL: no \"$report\" report from the $fault probe (status $status)"
  exit 1
fi
echo "ok: $fault reported as \"$report\" and fatal (status $status)"
