# shellcheck shell=bash
# Sourced by tests that are shell scripts.
failures=0

# expect WHAT WANTED GOT
expect() {
  if [ "$2" = "$3" ]; then return; fi
  printf 'FAILED %s\n  wanted: %s\n  got:    %s\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}

sum_up() {
  echo "$failures failed"
  [ $failures = 0 ]
}
