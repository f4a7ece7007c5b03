"""Says how far a long step is, as cmake/progress.sh does for ./vex: on a terminal one line that is written again and again,
elsewhere a plain line at most every ten seconds."""

import os
import shutil
import sys
import time

EVERY_S = 10
REWRITE = "\r\033[K"


def in_words(seconds):
    """Of the time that is left."""
    if seconds < 55:
        return f"about {int(seconds) // 5 * 5 + 5} s left"
    return f"about {int(seconds + 30) // 60} min left"


class Progress:
    def __init__(self, stream=sys.stderr):
        self.stream = stream
        self.terminal = stream.isatty() and os.environ.get("TERM", "dumb") != "dumb"
        self.next = time.monotonic()
        self.stands = False

    def show(self, text):
        if self.terminal:
            width = os.get_terminal_size(self.stream.fileno()).columns or shutil.get_terminal_size().columns
            self.write(REWRITE + text[:width - 1])
            self.stands = True
        elif time.monotonic() >= self.next:
            self.write(text + "\n")
            self.next = time.monotonic() + EVERY_S

    def clear(self):
        """Makes room for other output, or for what comes after the step."""
        if self.stands:
            self.write(REWRITE)
        self.stands = False

    def write(self, text):
        self.stream.write(text)
        self.stream.flush()
