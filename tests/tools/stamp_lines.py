"""Copies standard input to standard output, each line led by the seconds
since this started (three decimals and a space), and a last line of just
the seconds at the end of the input: what a progress line said is left can
then be set against what was left."""
import sys
import time

started = time.monotonic()
for line in sys.stdin:
    sys.stdout.write("%.3f %s" % (time.monotonic() - started, line))
    sys.stdout.flush()
sys.stdout.write("%.3f\n" % (time.monotonic() - started))
