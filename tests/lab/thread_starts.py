#!/usr/bin/python3
"""Record when a process starts threads: "TIME TID" for every thread that appears.

    thread_starts.py PID [INTERVAL]

Polls /proc/PID/task every INTERVAL seconds (default 0.01) and prints a line, flushed at once,
for every thread id not seen before (the threads present at the first look are printed with the
time of that look). Ends when the process is gone, or on SIGTERM. The daemon starts its one
input thread once: a second thread id would mean it was ended and started again.

Run it with /usr/bin/python3.
"""

import os
import signal
import sys
import time


def main():
    if len(sys.argv) < 2 or not sys.argv[1].isdigit():
        print(__doc__, file=sys.stderr)
        return 2
    pid = sys.argv[1]
    interval = float(sys.argv[2]) if len(sys.argv) > 2 else 0.01
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    seen = set()
    while True:
        try:
            tids = os.listdir("/proc/%s/task" % pid)
        except OSError:
            return 0
        now = time.time()
        for tid in sorted(tids, key=int):
            if tid not in seen:
                seen.add(tid)
                print("%.6f %s" % (now, tid), flush=True)
        time.sleep(interval)


if __name__ == "__main__":
    sys.exit(main())
