"""How the lines of a file ended on each device, of the runs that tasks/lines.yaml has registered."""

import json
import re

# What Ansible says before ssh's own words.
LEAD = re.compile(r".*?(reached over ssh|to the host via ssh): ")


def verdict(run):
    """Status and reason of the first line that did not end well, where it stands, and all replies."""
    replies = [json.loads(line) for line in run.get("stdout", "").splitlines() if line.startswith("{")]
    failed = next((reply for reply in replies if reply.get("status", "ok") != "ok"), None)
    if failed:
        return {"status": failed["status"], "reason": failed.get("reason", ""), "at": failed.get("at", ""), "replies": replies}
    if run.get("unreachable") or run.get("rc", 1) != 0:
        reason = LEAD.sub("", " ".join(str(run.get("stderr") or run.get("msg") or "nothing was run").split()))
        return {"status": "unreachable", "reason": reason, "at": "", "replies": replies}
    return {"status": "ok", "reason": "", "at": "", "replies": replies}


def verdicts(hostvars, hosts):
    return {host: verdict(run_of(hostvars[host])) for host in hosts}


def run_of(variables):
    run = variables.get("vextool_run", {})
    return variables.get("vextool_reach", {}) if run.get("skipped") else run


def table(found):
    """A row for each device that has something to say, and the number of the others."""
    bad = {host: each for host, each in found.items() if each["status"] != "ok"}
    rows = [" ".join(filter(None, (host, each["status"], each["at"], each["reason"]))) for host, each in bad.items()]
    return [f"{len(found) - len(bad)} of {len(found)} devices ok", *rows]


class FilterModule:
    def filters(self):
        return {"vextool_verdicts": verdicts, "vextool_table": table}
