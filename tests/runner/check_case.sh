#!/bin/sh
# check_case.sh RESULTS CASE: reports one case from what run_binary.sh
# recorded: its failure messages, and exit 0 (passed), 1 (failed or crashed),
# 77 (skipped) or 1 with a note when the case has no result.
awk -F'\t' -v name="$2" '
  $1 == name && $2 == "MSG" { sub(/^[^\t]*\t[^\t]*\t/, ""); print; next }
  $1 == name && $2 ~ /^(PASS|FAIL|SKIP|CRASH)$/ { status = $2 }
  END {
    if (status == "PASS") exit 0
    if (status == "SKIP") { print "skipped"; exit 77 }
    if (status == "CRASH") { print "the test binary died in this case (output above)"; exit 1 }
    if (status == "FAIL") exit 1
    print "no result recorded: the test binary did not run this case"
    exit 1
  }' "$1"
