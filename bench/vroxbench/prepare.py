"""What must be there before anything can be measured: packages, the load generator, vrox."""
import os
import subprocess
import sys
from pathlib import Path

from vroxbench.contenders import PACKAGES

ROOT = Path(__file__).resolve().parents[2]
TOOLS = ("g++", "cmake", "ninja-build", "libbenchmark-dev", "iproute2", "iptables", "util-linux", "python3-matplotlib")


def _installed(package):
    found = subprocess.run(["dpkg-query", "-W", "-f", "${db:Status-Status}", package], capture_output=True, text=True)
    return found.stdout == "installed"


def version_of(package):
    found = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], capture_output=True, text=True)
    return found.stdout if found.returncode == 0 else ""


def install():
    """Installs what is missing from Debian's packages. A contender that cannot be had is left out later,
    with a word about it. Nothing that a package would start as a service is started."""
    missing = [package for package in (*TOOLS, *PACKAGES) if not _installed(package)]
    if not missing:
        return
    print(f"installing {' '.join(missing)}", file=sys.stderr)
    policy = Path("/usr/sbin/policy-rc.d")
    refused = not policy.exists()
    if refused:
        policy.write_text("#!/bin/sh\nexit 101\n")
        policy.chmod(0o755)
    try:
        environment = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
        apt = ["apt-get", "-qq", "-o", "Dpkg::Use-Pty=0"]
        subprocess.run([*apt, "update"], env=environment, stdout=sys.stderr, check=False)
        for package in missing:  # one that is not to be had must not keep the others out
            subprocess.run([*apt, "install", "-y", "--no-install-recommends", package], env=environment,
                           stdout=sys.stderr, check=False)
    finally:
        if refused:
            policy.unlink()


def _build(preset, target):
    for command in (["cmake", "--preset", preset], ["cmake", "--build", "--preset", preset, "--target", target]):
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode:
            sys.exit(done.stdout + f"bench: {' '.join(command)} failed")
    return ROOT / "build" / preset


def build_load():
    return _build("bench", "load") / "bench" / "load" / "load"


def build_vrox():
    """The program named by VROX_BIN, or else the release build of this checkout."""
    named = os.environ.get("VROX_BIN")
    return Path(named).resolve(strict=True) if named else _build("release", "vrox") / "vrox"
