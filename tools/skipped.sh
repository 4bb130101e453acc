# Sourced by the tools: why tests were skipped, which ctest's summary leaves out.

# run_workflow <preset> : configures, builds and tests; then a line for each test that was skipped.
run_workflow() {
  local status=0
  cmake --workflow --preset "$1" || status=$?
  print_skipped "build/$1"
  return "$status"
}

# print_skipped <build directory> : of its last run of tests.
print_skipped() {
  local log=$1/Testing/Temporary/LastTest.log
  [ ! -e "$log" ] || awk '/ Testing: / { test = $NF }
    /: Skipped$/ { getline reason; print "skipped: " test ": " reason }' "$log"
}
