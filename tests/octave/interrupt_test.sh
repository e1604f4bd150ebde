#!/usr/bin/env bash
# Ctrl-C during a long call: one octave-cli session (commands from a fifo)
# starts a call that would run for many seconds, gets SIGINT, must return to
# its prompt within a few seconds, and must still run the next call.
# Usage: interrupt_test.sh <dir with shapewiener.mex> <dir with the test scripts> [step]
# (step: 'long', the raw filter, by default; 'long_denoise', shapewiener_denoise)
# Exit code 77 (skipped) when Octave or the MEX file is missing.
set -u
mex_dir=$1
test_dir=$2
step=${3:-long}
skip=77
[ "${CI:-}" = "true" ] && skip=1
if ! command -v octave-cli >/dev/null 2>&1 || [ ! -f "$mex_dir/shapewiener.mex" ]; then
  echo "*** SKIPPED: octave-cli or $mex_dir/shapewiener.mex missing; Ctrl-C not checked ***"
  exit $skip
fi
limit_ms=${SHAPEWIENER_INTERRUPT_LIMIT_MS:-3000}  # from SIGINT to the prompt
work=$(mktemp -d)
octave_pid=
cleanup() {
  exec 3>&- 2>/dev/null
  [ -n "$octave_pid" ] && kill -9 "$octave_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
mkfifo "$work/in"
octave-cli --norc --no-history --no-window-system --interactive <"$work/in" >"$work/log" 2>&1 &
octave_pid=$!
exec 3>"$work/in"
echo "addpath('$mex_dir'); addpath('$test_dir'); interrupt_session('$step');" >&3

# Wait for the call to start (argument building takes a moment).
for _ in $(seq 1 200); do
  grep -q 'calling' "$work/log" && break
  sleep 0.1
done
if ! grep -q 'calling' "$work/log"; then
  echo "FAIL: the long call did not start"; cat "$work/log"; exit 1
fi
sleep 0.3
start=$(date +%s%N)
kill -INT "$octave_pid"
echo "printf('prompt back\n'); fflush(stdout);" >&3
for _ in $(seq 1 200); do
  grep -q 'prompt back' "$work/log" && break
  sleep 0.05
done
elapsed_ms=$(( ($(date +%s%N) - start) / 1000000 ))
echo "interrupt_session('after'); exit(0);" >&3
exec 3>&-
wait "$octave_pid"
status=$?
octave_pid=
cat "$work/log" | grep -v '^$'
if ! grep -q 'prompt back' "$work/log"; then
  echo "FAIL: no prompt within 10 s of SIGINT"; exit 1
fi
if grep -q 'not interrupted' "$work/log"; then
  echo "FAIL: the long call ran to its end"; exit 1
fi
if [ "$status" -ne 0 ] || ! grep -q 'session alive' "$work/log"; then
  echo "FAIL: the session did not go on after the interrupt (exit status $status)"; exit 1
fi
echo "prompt back ${elapsed_ms} ms after SIGINT (limit ${limit_ms} ms)"
if [ "$elapsed_ms" -gt "$limit_ms" ]; then
  echo "FAIL: the interrupt took too long"; exit 1
fi
echo "PASS"
