"""All services at once with well and badly behaved peers, as bench/soak for a short while."""
import random

from lib import soak
from lib.daemon import SANITIZED
from lib.net import sysctl


def test_soak(net, tmp_path):
    sysctl("net.core.somaxconn", 4096)
    print(soak.run(tmp_path, 15 if SANITIZED else 60, random.randrange(1 << 32), 20 if SANITIZED else 60))
