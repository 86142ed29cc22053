#!/usr/bin/env python3
"""Reports a visit, if one is given, then prints records as they come: watch.py [URL [THREAT]]

What was printed is remembered in the file watch.cursor, so that the next run goes on behind it.
"""
import pathlib
import sys
import time

import pyxclient


def main(cursor_file=pathlib.Path("watch.cursor"), pause=1.0):
    client = pyxclient.Client()
    if len(sys.argv) > 1:
        client.report(*sys.argv[1:3])
    log = client.resume(cursor_file.read_text() if cursor_file.exists() else "")
    while True:
        for record in log:
            # repr() keeps what a hostile url would do to the terminal away from it.
            print(record.time.isoformat(), record.threat, repr(record.url), flush=True)
        # A run that is cut short leaves the cursor before or the new one.
        new_file = cursor_file.with_suffix(".new")
        new_file.write_text(log.cursor)
        new_file.replace(cursor_file)
        time.sleep(pause)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
