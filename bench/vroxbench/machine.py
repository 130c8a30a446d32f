"""What the figures were measured on."""
import hashlib
import os
import platform
import re
import subprocess
from pathlib import Path

from vroxbench import prepare
from vroxbench.contenders import PACKAGES


def _first_match(pattern, path):
    found = re.search(pattern, Path(path).read_text(), re.M)
    return found[1].strip() if found else "?"


def _output(*command):
    return subprocess.run(command, cwd=prepare.ROOT, capture_output=True, text=True).stdout.strip()


def describe():
    return {
        "processor": _first_match(r"^model name\s*:(.*)", "/proc/cpuinfo"),
        "processors": os.cpu_count(),
        "memory_gib": round(int(_first_match(r"^MemTotal:\s+(\d+)", "/proc/meminfo")) / 2**20, 1),
        "kernel": platform.release(),
        "system": _first_match(r'^PRETTY_NAME="(.*)"', "/etc/os-release"),
        "compiler": _output("c++", "--version").split("\n")[0],
        "versions": {package: prepare.version_of(package) for package in PACKAGES},
    }


def identify(program):
    """Which vrox it is: rounds of different programs must not be mixed."""
    commit = "of VROX_BIN" if "VROX_BIN" in os.environ else _output("git", "describe", "--always", "--dirty")
    return {"commit": commit,
            "sha256": hashlib.sha256(Path(program).read_bytes()).hexdigest()}
