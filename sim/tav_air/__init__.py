"""The simulated air in Python: an air of a test's own, with the fixture of tav_air.fixtures, and what tav-air does."""

from .air import Air, Brick
from .process import Problem

__all__ = ["Air", "Brick", "Problem"]
