# Sourced by the tools: builds and tests a preset, and says which tests were skipped and why, which
# ctest's summary leaves out.

# run_workflow <preset> : configures, builds and tests. Then ctest's summary, a line for each test that
# was skipped and, at the end, the tests that failed with what they printed.
run_workflow() {
  local preset=$1 log=$PWD/build/$1.log status=0
  [ -e "build/$preset/build.ninja" ] ||
    echo "The first run compiles everything: some minutes on two cores. Details: $log"
  begin_steps "$log" "configure $preset" "build $preset" "test $preset"
  step cmake --preset "$preset" &&
    step cmake --build --preset "$preset" || return
  local before
  before=$(wc -l <"$log")
  step ctest --preset "$preset" 2>/dev/null || status=$?
  tail -n "+$((before + 1))" "$log" >"$log.tests"
  sed -n '/tests passed/,$p' "$log.tests" | sed '/^The following tests did not run:/,/^$/d; /^The following tests FAILED:/,$d'
  print_skipped "build/$preset"
  awk '/^ *[0-9]+\/[0-9]+ Test +#|^ *Start +[0-9]+:|^[0-9]+% tests/ { shown = /\*\*\*/ && !/\*\*\*Skipped/ } shown' \
    "$log.tests" | head -n 1000
  sed -n '/^The following tests FAILED:/,/^$/p' "$log.tests"
  rm "$log.tests"
  echo "Details: $log"
  return "$status"
}

# print_skipped <build directory> : of its last run of tests.
print_skipped() {
  local log=$1/Testing/Temporary/LastTest.log
  [ ! -e "$log" ] || awk '/ Testing: / { test = $NF }
    /: Skipped$/ { getline reason; print "skipped: " test ": " reason }' "$log"
}
