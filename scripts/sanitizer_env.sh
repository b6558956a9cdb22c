# Sourced by the sanitizer and fuzz scripts (and by hand, to run a sanitized
# binary directly): every finding aborts with a symbolized report; leaks inside
# the OpenCL driver are suppressed (see tests/sanitizers/lsan_driver.supp).
nerva_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:print_legend=0:detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$nerva_root/tests/sanitizers/lsan_driver.supp:print_suppressions=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
if [ -z "${ASAN_SYMBOLIZER_PATH:-}" ] && command -v llvm-symbolizer >/dev/null; then
  export ASAN_SYMBOLIZER_PATH=$(command -v llvm-symbolizer)
fi
