"""A terminal with a program on it, and its screen as a reader sees it."""

import time

import pexpect
import pyte

COLUMNS, ROWS = 240, 1500  # so that nothing is wrapped or scrolls away


class Terminal:
    def __init__(self, arguments, limit_s, environment, folder):
        self.limit_s = limit_s
        self.screen = pyte.Screen(COLUMNS, ROWS)
        self.stream = pyte.Stream(self.screen)
        self.ended = False
        self.top = 0  # the first row of the last step's output
        self.child = pexpect.spawn(str(arguments[0]), [str(word) for word in arguments[1:]], encoding="utf-8",
                                   codec_errors="replace", dimensions=(ROWS, COLUMNS), cwd=str(folder),
                                   env=dict(environment, TERM="xterm-256color"))

    def row(self, number):
        cells = self.screen.buffer[number]
        return "".join(cells[x].data for x in range(COLUMNS)).rstrip()

    def rows(self, first):
        """From `first` to the cursor's."""
        return [self.row(y) for y in range(first, self.screen.cursor.y + 1)]

    def send(self, text):
        self.child.send(text)

    def pump(self, wait_s):
        try:
            self.stream.feed(self.child.read_nonblocking(65536, wait_s))
        except pexpect.TIMEOUT:
            pass
        except pexpect.EOF:
            self.ended = True

    def wait(self, condition, limit_s=None):
        """Reads until the condition holds or the program has ended or the time is over; whether it holds."""
        limit = time.monotonic() + (limit_s or self.limit_s)
        while not condition():
            if self.ended or time.monotonic() > limit:
                return False
            self.pump(0.05)
        return True

    def wait_for_end(self):
        self.wait(lambda: self.ended)
        assert self.ended, f"'{' '.join(self.child.args)}' did not end within {self.limit_s} s:\n" + "\n".join(self.rows(0))
        self.child.close()
        return self.child.exitstatus if self.child.exitstatus is not None else 128 + self.child.signalstatus

    def close(self):
        """Ends the program if it still runs, as closing the window does."""
        if self.child.isalive():
            self.child.close(force=True)
