"""run.py BUILD FILE...: runs pytest on FILEs in namespaces whose mounts and processes disappear with it, even if it is
killed. Where that can't be, as for an ordinary user, the tests that need a private root are skipped; packages are made and
looked at all the same. Ends with status 77, the reason on standard output, on a machine that lacks a program."""

import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import alone  # noqa: E402

TOOLS = {"unshare": "util-linux", "systemd-nspawn": "systemd-container", "nsenter": "util-linux", "man": "man-db",
         "dpkg-shlibdeps": "dpkg-dev", "systemd-analyze": "systemd"}


def main(build, *files):
    alone.need(TOOLS)
    os.environ["VEX_BUILD"] = build
    os.environ["VEX_NO_PRIVATE_ROOT"] = reason = alone.refusal("installing packages in a private root")
    alone.run_pytest(files, [] if reason else [*alone.SPACES, *alone.FIRST])


if __name__ == "__main__":
    main(*sys.argv[1:])
