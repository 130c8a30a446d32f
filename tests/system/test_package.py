"""The Debian package under a real systemd, on a copy of this system that nobody else sees."""
import os
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from lib import tun
from lib.daemon import BIN
from lib.net import exchange, ip
from lib.wait import DEADLINE, until

ROOT = Path(__file__).parents[2]
BUILD = Path(BIN).parent
FLAGS = "-std=c++20 -Wall -Wextra -Wconversion -Wold-style-cast -Werror".split()

# Becomes the first process of a system whose one task is the script.
BOOT = r"""
set -e
mount -t tmpfs none {work}
mkdir {work}/upper {work}/scratch {work}/root
mount -t overlay overlay -o lowerdir=/,upperdir={work}/upper,workdir={work}/scratch {work}/root
cd {work}/root
cp {files} root/
mount -t tmpfs none run
mount -t tmpfs none tmp
mount -t proc proc proc
mount -t tmpfs none dev
mkdir dev/net dev/shm
for node in null:1:3 zero:1:5 random:1:8 urandom:1:9 tty:5:0 net/tun:10:200; do
  mknod -m 666 dev/${{node%%:*}} c $(echo ${{node#*:}} | tr : ' ')
done
ln -s /proc/self/fd dev/fd
mount -t sysfs -o ro sysfs sys
mount -t tmpfs none sys/fs/cgroup
mount -t cgroup2 none sys/fs/cgroup
# Nothing of this system's own is started, and nothing keeps packages from starting theirs.
rm -rf usr/sbin/policy-rc.d lib/systemd/system/*.wants etc/systemd/system/*.wants lib/systemd/system-generators
printf '[Unit]\nDefaultDependencies=no\nRequires=trial.service\n' >etc/systemd/system/trial.target
printf '[Unit]\nDefaultDependencies=no\n[Service]\nExecStart=/bin/sh -x /root/trial
StandardOutput=append:{log}\nStandardError=inherit\nExecStopPost=/bin/echo trial over\n' >etc/systemd/system/trial.service
mkdir -p $(dirname .{log})
touch .{log}
mount --bind {log} .{log}
export container=other
exec chroot . /lib/systemd/systemd --unit=trial.target --log-target=null --show-status=no
"""

TRIAL = r"""
set -e
ip link set lo up
pid() { systemctl show -p MainPID --value vrox; }
# That a process other than $1 listens. Between two there is none: number 0.
serves() {
  for i in $(seq 100); do
    now=$(pid)
    [ "$now" != 0 ] && [ "$now" != "$1" ] && [ "$(ss -Hltn 'sport = 1080' | wc -l)" = 1 ] && return
    sleep 0.1
  done
  false
}

dpkg -i /root/vrox_0.3-1_*.deb
serves 0
[ "$(ps -o user= -p "$(pid)")" = vrox ]
systemd-analyze verify --man=no vrox.service vrox@other.service
first=$(pid)
dpkg -i /root/vrox_9-1_*.deb
serves $first

# One more instance that needs all that it is allowed: a port, a device, files.
cat >/etc/vrox/other.conf <<END
dns::Global {
  dns_listen = :::53
  cachePath = cache
}
Tun {
  tun_device = tun9
}
END
systemctl start vrox@other
for i in $(seq 100); do ip link show dev tun9 && break; sleep 0.1; done
systemctl is-active vrox@other
test -e /var/lib/vrox-other/cache

for end in 'systemctl reload vrox' 'kill -SEGV $before'; do
  before=$(pid)
  eval "$end"
  serves $before
done
systemctl stop vrox
[ "$(systemctl show -p Result --value vrox)" = success ]
vrox-redirect up -t 1180 -u vrox
dpkg -r vrox
! systemctl is-active vrox vrox@other
! nft list table inet vrox_redirect
rm /etc/vrox/other.conf
dpkg -P vrox
[ -z "$(find /etc /usr /var/lib -xdev -path '*vrox*' -not -path '*/dpkg/*')" ]
! id vrox
echo everything held
"""


@pytest.mark.slow
@pytest.mark.skipif(not Path("/lib/systemd/systemd").exists() or not shutil.which("cpack"), reason="needs systemd and cpack")
def test_package(tmp_path):
    packages = []
    for version in ("0.3", "9"):
        where = tmp_path / version
        subprocess.run(["cpack", "-G", "DEB", "-B", where, "-R", version], cwd=BUILD, check=True, capture_output=True)
        packages += where.glob("*.deb")
    if shutil.which("lintian"):
        command = "lintian --allow-root --fail-on error,warning".split()
        done = subprocess.run([*command, packages[0]], capture_output=True, text=True)
        assert done.returncode == 0, done.stdout
    trial, log, work = tmp_path / "trial", tmp_path / "log", tmp_path / "work"
    trial.write_text(TRIAL)
    log.touch()
    work.mkdir()
    boot = BOOT.format(work=work, files=" ".join(map(str, [trial, *packages])), log=log)
    system = subprocess.Popen(["unshare", *"-m -p -f -n -u -C --kill-child sh -c".split(), boot], stdout=subprocess.DEVNULL)
    until(lambda: "\ntrial over" in log.read_text() or system.poll() is not None, "the trial ends", 5 * DEADLINE)
    for child in Path(f"/proc/{system.pid}/task/{system.pid}/children").read_text().split():
        os.kill(int(child), signal.SIGKILL)  # the first process there, and with it all others
    system.wait()
    assert "\neverything held\n" in log.read_text(), log.read_text()[-3000:]


def test_a_device_that_is_handed_over(net, vrox, tmp_path):
    """android/tun_handover.cc, the peer of unix_path, with a device that is set up by others."""
    program = tmp_path / "tun_handover"
    subprocess.run(["g++", *FLAGS, "-o", program, ROOT / "android/tun_handover.cc"], check=True)
    ip("tuntap add mode tun dev tun3", "addr add 10.5.5.5 dev tun3", "link set tun3 mtu 1400 up")
    path = tmp_path / "socket"
    said = open(tmp_path / "said", "w+")
    net.program(program, path, "tun3", stdout=said)
    daemon = vrox(tun.configuration(f"unix_path = {path}"))
    tun.open_routes()
    origin = net.listen(tun.V4)
    client = tun.connect(net, *origin.getsockname())
    exchange(client, net.accept(origin))
    daemon.signal(signal.SIGTERM)
    daemon.wait()
    until(lambda: (tmp_path / "said").read_text() == "the daemon has ended\n", "its peer notices", DEADLINE)
