"""For pytest: the fixture `air`. A conftest.py has it by: pytest_plugins = ["tav_air.fixtures"]"""

from collections.abc import Generator, Iterator

import pytest

from .air import Air


@pytest.fixture
def air() -> Iterator[Air]:
    """A simulated air of this test's own, 50 times as fast as a real one; its bricks end with the test."""
    with Air() as made:
        yield made


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, "pytest.CallInfo[None]", None]:
    """A test that failed shows what each brick said."""
    outcome = yield
    report = outcome.get_result()  # type: ignore[attr-defined]
    made = getattr(item, "funcargs", {}).get("air")
    if report.failed and isinstance(made, Air):
        for brick in made.bricks:
            end = "it runs" if brick.status is None else f"its status is {brick.status}"
            report.sections.append((f"{brick.name} ({' '.join(brick.command)}), {end}", brick.said))
