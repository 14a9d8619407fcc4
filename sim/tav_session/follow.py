"""Follows captures that are being written."""

from collections.abc import Callable, Sequence
from pathlib import Path

from tav_air.process import Problem

from .analysis import Row, analyse
from .capture import Missing, Session, read


class Follower:
    """Reads them again when they have grown, and tells which rows are new, or not what they were."""

    def __init__(self, find: Callable[[], Sequence[Path]]) -> None:
        self.find = find
        self.sizes: dict[Path, int] = {}
        self.rows: dict[str, Row] = {}
        self.session = Session()

    def look(self) -> list[Row]:
        sizes = {file: file.stat().st_size for file in self.find() if file.is_file()}
        if sizes == self.sizes:
            return []
        self.sizes = sizes
        try:
            self.session = read(file for file, size in sizes.items() if size)
        except Missing:
            raise
        except Problem:
            return []  # a file that has just begun
        rows = {row["key"]: row for row in analyse(self.session, live=True)}
        news = [row for key, row in rows.items() if self.rows.get(key) != row]
        news += [{"key": key, "removed": True} for key in self.rows if key not in rows]
        self.rows = rows
        return news
