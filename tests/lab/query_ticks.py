#!/usr/bin/python3
"""Count the daemon's one-second ticks between the general queries seen on one link.

    query_ticks.py THREADS_FILE PID STARTUP_TIMES QUERY_TIMES

THREADS_FILE is the output of thread_starts.py for the daemon PID; STARTUP_TIMES are the times
of the daemon's start-up messages (its one-record start-up reports and first general queries on
every downstream link) and QUERY_TIMES the times of the general queries on the link, both
comma-separated.

The daemon's clock: an input thread takes the start-up actions (the start-up messages), sleeps
one second and then ticks once a second until it ends; after every batch of netlink messages it
ends and a new one starts (a new thread id), which takes the start-up actions again (nothing to
send for links already started), sleeps one second and ticks. A general query is sent on a
tick (after the first one, which the start-up actions send). So for thread i, started at s_i
and replaced at s_{i+1}, with its last start-up message at u_i (or s_i), the ticks fall at
max(s_i, u_i) + 1 + k seconds, k = 1, 2, ..., before s_{i+1}.

Prints one line: "ticks=A,B,... offsets=X,Y,... ambiguous=N restarts=R" where A is the number
of ticks after one query up to and including the next, X how far that next query lies from its
nearest tick (seconds), N the number of ticks between the first and the last query that fall within 0.3 s
before a thread change (whether they happened cannot be told) and R the thread starts after the first query.
"""

import sys

SLEEP = 1.0  # the sleep after the start-up actions
TICK = 1.0
MARGIN = 0.3  # a query belongs to a tick within this distance


def floats(text):
    return sorted(float(x) for x in text.split(",") if x)


def main():
    if len(sys.argv) != 5:
        print(__doc__, file=sys.stderr)
        return 2
    threads_file, pid, startup, queries = sys.argv[1:]
    starts = []
    with open(threads_file) as f:
        for line in f:
            parts = line.split()
            if len(parts) == 2 and parts[1] != pid:
                starts.append(float(parts[0]))
    starts.sort()
    startup_times = floats(startup)
    query_times = floats(queries)
    if not starts or len(query_times) < 2:
        print("ticks= offsets= ambiguous=0 restarts=0 (no input thread recorded or fewer than 2 queries)")
        return 1
    ticks = []
    ambiguous = 0
    for i, s in enumerate(starts):
        end = starts[i + 1] if i + 1 < len(starts) else query_times[-1] + 10
        own = [u for u in startup_times if s <= u < end]
        base = max([s] + own) + SLEEP
        t = base + TICK
        while t < end:
            if t > end - MARGIN and query_times[0] < t < query_times[-1] + MARGIN:
                ambiguous += 1
            ticks.append(t)
            t += TICK
    counts, offsets = [], []
    for a, b in zip(query_times, query_times[1:]):
        counts.append(sum(1 for t in ticks if a + MARGIN < t <= b + MARGIN))
        offsets.append(min((b - t for t in ticks), key=abs) if ticks else 99.0)
    restarts = sum(1 for s in starts if s > query_times[0])
    print(
        "ticks=%s offsets=%s ambiguous=%d restarts=%d"
        % (",".join(map(str, counts)), ",".join("%+.2f" % o for o in offsets), ambiguous, restarts)
    )
    return 0


if __name__ == "__main__":
    sys.exit(main())
