"""run.py BIN FILE...: runs pytest on FILEs, with the programs in the folder BIN, in namespaces that disappear with it. Ends
with status 77, the reason on standard output, where that can't be or a program is missing."""

import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import alone  # noqa: E402

TOOLS = {"unshare": "util-linux", "setpriv": "util-linux", "ip": "iproute2", "sshd": "openssh-server",
         "ssh": "openssh-client", "pkill": "procps", "clush": "clustershell", "ansible-playbook": "ansible-core"}


def main(programs, *files):
    alone.need(TOOLS)
    reason = alone.refusal("devices with accounts and networks of their own")
    if reason:
        alone.skip(reason)
    os.environ["VEX_BIN"] = programs
    alone.run_pytest(files, [*alone.SPACES, *alone.FIRST])


if __name__ == "__main__":
    main(*sys.argv[1:])
