#!/usr/bin/python3
"""Print the MRT6 socket-option calls found in an strace log, one a line.

    mrt6_calls.py STRACE_LOG

The log comes from `strace -f -ttt -X raw -xx -e trace=setsockopt` (lab_start_daemon -s): raw
numbers, strings in hex. Output lines: "TIME TID OPERATION ARGUMENT RESULT", where OPERATION is
INIT, DONE, ADD_MIF, DEL_MIF, ADD_MFC, DEL_MFC, ... (level IPPROTO_IPV6, options 200-210 of
<linux/mroute6.h>), ARGUMENT is the MIF index for ADD_MIF / DEL_MIF (first 16-bit field of the
option value, in this machine's byte order) and "-" otherwise, and RESULT is the return value
("?" when strace did not see the call end). A call that strace splits into "<unfinished ...>"
and "<... setsockopt resumed>" is put together again. Exit status 1 if the log cannot be read.
"""

import re
import struct
import sys

IPPROTO_IPV6 = 41
MRT6_NAMES = {
    200: "INIT",
    201: "DONE",
    202: "ADD_MIF",
    203: "DEL_MIF",
    204: "ADD_MFC",
    205: "DEL_MFC",
    206: "VERSION",
    207: "ASSERT",
    208: "PIM",
    209: "TABLE",
    210: "ADD_MFC_PROXY",
}

CALL = re.compile(r'^(\d+)\s+(\d+\.\d+)\s+setsockopt\((\d+), (0x[0-9a-f]+|\d+), (0x[0-9a-f]+|\d+), (.*)$')
RESUMED = re.compile(r'^(\d+)\s+(\d+\.\d+)\s+<\.\.\. setsockopt resumed>.*\)\s+=\s+(-?\d+)')
RESULT = re.compile(r'\)\s+=\s+(-?\d+)')
HEX_STRING = re.compile(r'^"((?:\\x[0-9a-f]{2})*)"')


def number(text):
    return int(text, 0)


def mif_index(value_text):
    m = HEX_STRING.match(value_text)
    if not m:
        return "-"
    data = bytes(int(h, 16) for h in m.group(1).split("\\x")[1:])
    if len(data) < 2:
        return "-"
    return str(struct.unpack("=H", data[:2])[0])


def main():
    try:
        with open(sys.argv[1], encoding="utf-8", errors="replace") as log:
            lines = log.read().splitlines()
    except (IndexError, OSError) as error:
        print("mrt6_calls.py: %s" % error, file=sys.stderr)
        return 1
    calls = []
    pending = {}  # thread id -> index in calls of its unfinished setsockopt
    for line in lines:
        m = CALL.match(line)
        if m:
            tid, when, _fd, level, option, rest = m.groups()
            if number(level) != IPPROTO_IPV6 or number(option) not in MRT6_NAMES:
                continue
            name = MRT6_NAMES[number(option)]
            argument = mif_index(rest) if name in ("ADD_MIF", "DEL_MIF") else "-"
            result = RESULT.search(rest)
            calls.append([when, tid, name, argument, result.group(1) if result else "?"])
            if "<unfinished ...>" in rest:
                pending[tid] = len(calls) - 1
            continue
        m = RESUMED.match(line)
        if m and m.group(1) in pending:
            calls[pending.pop(m.group(1))][4] = m.group(3)
    for call in calls:
        print(" ".join(call))
    return 0


if __name__ == "__main__":
    sys.exit(main())
