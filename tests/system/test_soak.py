"""All services at once with well and badly behaved peers, as bench/soak for a short while."""
import random
from pathlib import Path

import pytest

from lib import peers, quick, soak
from lib.daemon import SANITIZED
from lib.net import sysctl


@quick.needed
@pytest.mark.skipif(not Path(peers.PEERS_BIN).exists(), reason="needs the target peers")
def test_soak(net, tmp_path):
    """Nothing is lost, stuck or wrong, and descriptors and memory come back to what they were."""
    sysctl("net.core.somaxconn", 4096)
    print(soak.run(tmp_path, 15 if SANITIZED else 60, random.randrange(1 << 32), 20 if SANITIZED else 60))
