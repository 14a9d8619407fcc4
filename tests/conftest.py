"""What all tests under pytest share."""

import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest

pytest_plugins = ["browser", "tav_air.fixtures"]


@pytest.fixture
def tmp_path() -> Iterator[Path]:
    """A folder that is gone afterwards; pytest's own keeps those of three runs."""
    with tempfile.TemporaryDirectory(prefix="tav-") as folder:
        yield Path(folder)
