"""Processor time and memory of the processes of a cell, from /proc."""
import os
import re
import time
from pathlib import Path

TICK = os.sysconf("SC_CLK_TCK")


def clock_of(pid):
    """Processor seconds of a process so far, threads that have ended included, in nanoseconds' steps."""
    return time.clock_gettime((~pid << 3) | 2)  # how the kernel numbers the clocks of other processes


def stat_of(pid):
    """The fields of /proc/PID/stat from the state on; None when the process is gone."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    except OSError:
        return None


def outside_this_session():
    """The contender's processes: it was started in a session of its own, helpers stay in ours."""
    ours = os.getsid(0)
    for entry in os.listdir("/proc"):
        stat = stat_of(entry) if entry.isdigit() else None
        if stat and int(stat[3]) != ours:
            yield int(entry), stat


def cpu_seconds():
    """Of the contender: its processes with all their threads, and the children that they waited for."""
    total = 0.0
    for pid, stat in outside_this_session():
        try:
            total += clock_of(pid) + (int(stat[13]) + int(stat[14])) / TICK
        except OSError:
            pass  # it ended in between
    return total


def user_seconds():
    """The part of it that is spent in the contender's own code, in steps of a tick."""
    return sum(int(stat[11]) + int(stat[13]) for _, stat in outside_this_session()) / TICK


def memory_kib():
    """Resident and proportional set size of the contender."""
    resident = proportional = 0
    for pid, _ in outside_this_session():
        try:
            text = Path(f"/proc/{pid}/smaps_rollup").read_text()
        except OSError:
            continue
        resident += int(re.search(r"^Rss:\s+(\d+)", text, re.M)[1])
        proportional += int(re.search(r"^Pss:\s+(\d+)", text, re.M)[1])
    return resident, proportional


def idle_seconds():
    """What all processors together have spent idle."""
    fields = Path("/proc/stat").read_text().split("\n", 1)[0].split()
    return int(fields[4]) / TICK


def pin_everybody(cpus):
    for task in Path("/proc").glob("[0-9]*/task/[0-9]*"):
        try:
            os.sched_setaffinity(int(task.name), cpus)
        except OSError:
            pass  # it ended in between
