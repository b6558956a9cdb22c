#!/bin/sh
# check_exit.sh RESULTS: fails when the test binary's last run ended with a
# non-zero status that no failed case explains (a leak found at exit, a crash
# in set-up or tear-down), and shows the end of its output.
rc=$(cat "$1.exit" 2>/dev/null || echo missing)
[ "$rc" = 0 ] && exit 0
if [ "$rc" != missing ] && awk -F'\t' '$2 ~ /^(FAIL|CRASH)$/ { found = 1 } END { exit !found }' "$1"; then
  exit 0
fi
echo "the test binary exited with status $rc outside its cases; end of its output:"
tail -n 200 "$1.log" 2>/dev/null
exit 1
