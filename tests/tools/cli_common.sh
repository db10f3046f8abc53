# What every command-line test script starts with, sourced after `set -u`:
# the tool and the sample folder from its arguments ($1, $2), a scratch folder
# removed on exit ($work), and fail/expect_eq that count failures, which
# finish() turns into the exit status.
tool=$1
data=$2
failures=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
expect_eq() { [ "$1" == "$2" ] || fail "$3: got '$1', expected '$2'"; }

# finish "what passed": the summary line, and exit 1 when a check failed.
finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
  fi
  echo "$1"
}
