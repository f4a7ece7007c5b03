"""A reader who follows a document: a fresh checkout that is built, a shell in it, and the demo."""

import os
import pathlib
import re
import shutil
import subprocess

import markdown
import transcript
from terminal import Terminal

BIN = pathlib.Path(os.environ.get("VEX_BIN", markdown.ROOT / "build" / "bin")).resolve()
INSTRUMENTED = os.environ.get("VEX_COVERAGE") in ("ON", "1")  # programs linked with it must be, too
SAMPLES = BIN.parent / "tests" / "docs" / "bin"  # the tool with the documents' menus and modules
LIMIT_S = 60  # on a loaded machine the demo takes half of it to make its clip
AGAIN = 5
# Variables of the person who runs the tests; the reader has none of them.
NOT_THE_READERS = ("KLBASE_", "KLRPC_", "SYSCONFIG_", "DISPLAY", "WAYLAND_DISPLAY", "PULSE_SERVER", "XDG_", "LS_COLORS")


class Reader:
    clip = None  # of the first demo; it takes time to make
    left_out = []  # blocks, and why

    def __init__(self, folder):
        self.folder = folder
        self.checkout = folder / "vextool"
        self.home = folder / "home"
        self.home.mkdir()
        self.make_checkout()
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith(NOT_THE_READERS)}
        self.environment.update(HOME=str(self.home), PATH=f"{BIN}:{os.environ['PATH']}", LC_ALL="C.UTF-8",
                                KLBASE_LOG_FILE=str(folder / "vextool.log"), PYTHONDONTWRITEBYTECODE="1")
        self.demo = None
        self.meanwhile = None  # the block, step and terminal of a command that goes on
        self.status = 0

    def make_checkout(self):
        """The tree, with a build folder that holds the programs under test and in which all is built."""
        self.checkout.mkdir()
        for name in os.listdir(markdown.ROOT):
            if not name.startswith(("build", "docs")):
                (self.checkout / name).symlink_to(markdown.ROOT / name)
        # Commands of the documents write into it.
        shutil.copytree(markdown.ROOT / "docs", self.checkout / "docs", ignore=shutil.ignore_patterns("stubs"))
        (self.checkout / "build").mkdir()
        (self.checkout / "build" / "bin").symlink_to(BIN)
        (self.checkout / "build" / "cmake_install.cmake").symlink_to(BIN.parent / "cmake_install.cmake")
        (self.checkout / "build" / "build.ninja").write_text(
            "build all vextool vexctl encd playd sysconfig make_sample_clip: phony\n", encoding="ascii")
        if Reader.clip:
            (self.checkout / "build" / "demo").mkdir()
            (self.checkout / "build" / "demo" / "clip.mp4").write_bytes(Reader.clip)

    @staticmethod
    def file_name(block):
        """Of the file that a block is: the comment in its first line says so."""
        named = re.match(r"(?://|#) ([\w./-]+\.\w+|[\w./-]*CMakeLists\.txt)$", block.lines[0] if block.lines else "")
        return named.group(1) if named else None

    def save_files(self, document):
        """Writes the files that a document shows, except those that the checkout has."""
        for block in document.blocks:
            name = self.file_name(block)
            if block.kind in ("cpp", "cmake", "python") and name and not (self.checkout / name.split("/")[0]).is_symlink():
                path = self.checkout / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(block.text, encoding="utf-8")

    def use_samples(self):
        """The reader has added the documents' menus and modules to the tree and built it again."""
        bin_folder = self.checkout / "build" / "bin"
        bin_folder.unlink()
        bin_folder.mkdir()
        for name in os.listdir(BIN):
            (bin_folder / name).symlink_to((SAMPLES if name == "vextool" else BIN) / name)

    def open(self, arguments, environment=None):
        return Terminal(arguments, LIMIT_S, environment or self.environment, self.checkout)

    def open_demo(self, command="./vex demo"):
        """It says itself where the logs go."""
        self.demo = self.open(["bash", "-c", f"exec {command}"],
                              {name: value for name, value in self.environment.items() if name != "KLBASE_LOG_FILE"})

    def start_demo(self):
        self.open_demo()
        assert self.demo.wait(lambda: self.demo.row(self.demo.screen.cursor.y) == "main>"), self.demo.rows(0)
        Reader.clip = Reader.clip or (self.checkout / "build" / "demo" / "clip.mp4").read_bytes()
        self.demo.top = self.demo.screen.cursor.y

    def stop_demo(self):
        if self.demo and not self.demo.ended:
            self.demo.send("\x15exit\r")
            self.demo.wait_for_end()
        self.close_terminals()

    def leave(self):
        """Ends all running programs and removes the checkout."""
        try:
            self.stop_demo()
        finally:
            shutil.rmtree(self.folder, ignore_errors=True)

    def close_terminals(self):
        for terminal in (self.demo, self.meanwhile and self.meanwhile[2]):
            if terminal:
                terminal.close()
        self.demo = self.meanwhile = None

    def play(self, block):
        """Follows a console block and compares the output. "alone" behind the fence's kind: without the demo;
        "beside": with it, although nothing of it shows in the block; "samples": with the document's own menus and
        modules built in; "meanwhile": its one command goes on while the next block is played, and must end then;
        "plain": with libraries that another program can be linked with as the document says; "settings": where
        the machine lets the demo's tool find the device's settings tools."""
        if "plain" in block.info and INSTRUMENTED:
            return
        if "settings" in block.info and not self.finds_settings_tools():
            Reader.left_out.append(f"{block}: this machine allows no view of the file system of one's own")
            return
        if "alone" in block.info:
            self.stop_demo()
        if "samples" in block.info:
            self.use_samples()
        if "beside" in block.info and not self.demo:
            self.start_demo()
        if "meanwhile" in block.info:
            self.begin(block)
            return
        terminal = None
        try:
            following = transcript.steps(block)
            for step, after in zip(following, following[1:] + [None]):
                stays = after is not None and not after.at_shell
                if step.at_shell:
                    if terminal:
                        self.end(terminal)
                    terminal = self.run(block, step, stays)
                else:
                    if terminal is None:
                        terminal = self.demo or self.start_demo() or self.demo
                    self.type(block, step, terminal)
        finally:
            if terminal and terminal is not self.demo:
                terminal.close()
            if self.demo and self.demo.ended:
                self.demo = None
        self.finish()

    def finds_settings_tools(self):
        command = ["device/sysconfig/demo_mount.sh", BIN, self.folder / "settings", "test", "-x", "/usr/kelo/bin/sysconfig"]
        return subprocess.run(command, cwd=self.checkout, check=False).returncode == 0

    def begin(self, block):
        step, = transcript.steps(block)
        terminal = self.open(["bash", "-c", step.typed])
        self.meanwhile = (block, step, terminal)
        assert terminal.wait(lambda: terminal.rows(0)[:1] == step.expected[:1]), difference(block, step, terminal.rows(0))

    def finish(self):
        if self.meanwhile is None:
            return
        (block, step, terminal), self.meanwhile = self.meanwhile, None
        self.compare(block, step, terminal)

    def end(self, terminal):
        if terminal.ended:
            self.status = terminal.wait_for_end()

    def run(self, block, step, stays):
        if step.typed.startswith("./vex demo"):
            self.stop_demo()
            self.open_demo(step.typed)
            terminal = self.demo
        else:
            terminal = self.open(["bash", "-c", f"(exit {self.status}); {step.typed}"])
        if stays:
            done = terminal.wait(lambda: self.shows(terminal, step, "main>"))
            self.check(block, step, done, terminal)
            terminal.top = terminal.screen.cursor.y
            return terminal
        for _ in range(AGAIN):
            if not (terminal.wait(lambda: terminal.ended) and came_late(step, terminal.rows(0))):
                break
            terminal = self.open(["bash", "-c", step.typed])
        self.compare(block, step, terminal)
        return terminal

    def compare(self, block, step, terminal):
        """Waits for the end of a shell command and compares all that it has shown."""
        self.status = terminal.wait_for_end()
        seen = terminal.rows(0)
        while seen and not seen[-1]:
            seen.pop()
        assert transcript.matches(step.expected, seen), difference(block, step, seen)
        assert self.status == 0 or self.asks_status(block, step), f"{block.file}:{step.line}: status {self.status}"

    def asks_status(self, block, step):
        following = transcript.steps(block)
        at = following.index(step) + 1
        return at < len(following) and following[at].typed == "echo $?"

    def shows(self, terminal, step, prompt):
        seen = terminal.rows(terminal.top)
        return bool(seen) and seen[-1] == prompt and transcript.matches(step.expected, seen[:-1])

    def type(self, block, step, terminal):
        first = terminal.row(terminal.top)
        assert first == step.prompt.rstrip(), f"{block.file}:{step.line}: '{step.prompt}' is written where '{first}' shows"
        keys = {"^C": "\x03", "^D": "\x04"}.get(step.typed, step.typed + "\r")
        shown = "" if len(keys) == 1 and step.typed != "^C" else step.typed
        terminal.send(keys)
        expected = [(step.prompt + shown).rstrip(), *step.expected]

        def done():
            seen = terminal.rows(terminal.top)
            if terminal.ended:
                return transcript.matches(expected, [row for row in seen if row])
            is_prompt = transcript.PROMPT.match(seen[-1] + " ")
            return bool(is_prompt) and transcript.matches(expected, seen[:-1])

        self.check(block, step, terminal.wait(done) or done(), terminal)
        if terminal.ended:
            self.status = terminal.wait_for_end()
        terminal.top = terminal.screen.cursor.y

    def check(self, block, step, done, terminal):
        assert done, difference(block, step, terminal.rows(terminal.top))


def came_late(step, seen):
    """On a slow machine a program may speak too late, and gets a prompt as a typing operator does. It is run again."""
    return "nc -N" in step.typed and any("main> " in row for row in seen)


def difference(block, step, seen):
    return (f"{block.file}:{step.line}: '{step.prompt}{step.typed}' is said to show\n  | " + "\n  | ".join(step.expected)
            + "\nbut shows\n  | " + "\n  | ".join(seen))
