"""A real browser, without a window, for tests of pages."""

import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

DRIVER = Path("/usr/bin/chromedriver")  # Debian's
PATIENCE = 120  # s, for what takes a moment on a quiet machine


class Browser:
    def __init__(self) -> None:
        from selenium import webdriver  # here: not everybody has it

        options = webdriver.ChromeOptions()
        for option in "--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1360,860":
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = webdriver.chrome.service.Service(str(DRIVER))
        self.driver = webdriver.Chrome(service=service, options=options)

    def open(self, address: str) -> float:
        """How long it took, in seconds, until it was drawn."""
        begun = time.monotonic()
        self.driver.get(address)
        self.run("return new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)))")
        return time.monotonic() - begun

    def run(self, script: str) -> Any:
        return self.driver.execute_script(script)

    def wait_for(self, condition: str) -> Any:
        """Until this is true; its value."""
        until = time.monotonic() + PATIENCE
        while not (value := self.run(f"return {condition}")):
            assert time.monotonic() < until, (condition, self.run("return document.body.innerText"))
            time.sleep(0.05)
        return value

    def texts(self, selector: str, document: str = "document") -> list[str]:
        found: list[str] = self.run(
            f"return [...{document}.querySelectorAll({selector!r})].map(each => each.textContent)"
        )
        return found

    def press(self, *keys: str) -> None:
        for key in keys:
            self.run(
                f"document.activeElement.dispatchEvent(new KeyboardEvent('keydown', {{key: {key!r}, bubbles: true}}))"
            )

    def complaints(self) -> list[str]:
        return [entry["message"] for entry in self.driver.get_log("browser")]


@pytest.fixture(scope="module")
def browser() -> Iterator[Browser]:
    pytest.importorskip("selenium")
    if not DRIVER.is_file():
        pytest.skip(f"there is no {DRIVER}")
    made = Browser()
    yield made
    made.driver.quit()
