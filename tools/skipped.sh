# Sourced by the tools: builds and tests a preset, and says which tests were skipped and why, which
# ctest's summary leaves out.

# run_workflow <preset> : configures, builds and tests. Then the tests that failed with what they
# printed, ctest's summary, and a line for each test that was skipped.
run_workflow() {
  local preset=$1 log=$PWD/build/$1.log status=0
  [ -e "build/$preset/build.ninja" ] ||
    echo "The first run compiles everything: some minutes on two cores. Details: $log"
  begin_steps 3 "$log"
  step "configure $preset" cmake --preset "$preset" &&
    step "build $preset" cmake --build --preset "$preset" || return
  local before
  before=$(wc -l <"$log")
  step "test $preset" ctest --preset "$preset" 2>/dev/null || status=$?
  tail -n "+$((before + 1))" "$log" >"$log.tests"
  awk '/^ *[0-9]+\/[0-9]+ Test +#|^ *Start +[0-9]+:|^[0-9]+% tests/ { shown = /\*\*\*/ && !/\*\*\*Skipped/ } shown' \
    "$log.tests" | head -n 1000
  sed -n '/tests passed/,$p' "$log.tests"
  rm "$log.tests"
  print_skipped "build/$preset"
  echo "Details: $log"
  return "$status"
}

# print_skipped <build directory> : of its last run of tests.
print_skipped() {
  local log=$1/Testing/Temporary/LastTest.log
  [ ! -e "$log" ] || awk '/ Testing: / { test = $NF }
    /: Skipped$/ { getline reason; print "skipped: " test ": " reason }' "$log"
}
