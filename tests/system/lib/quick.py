"""The program whose sweeps and drain checks come each second instead of each minute."""
import os
from pathlib import Path

import pytest

from lib.daemon import BIN

SWEEP_BIN = os.environ.get("VROX_SWEEP_BIN") or str(Path(BIN).with_name("vrox_sweep"))

needed = pytest.mark.skipif(
    not Path(SWEEP_BIN).exists(), reason="needs the target vrox_sweep, as VROX_SWEEP_BIN or beside VROX_BIN")
