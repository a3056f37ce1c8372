"""What clients/corpus holds for hosts, played by this one."""

import asyncio
import os
import unittest
from pathlib import Path

import scripted

CORPUS = Path(os.environ["ORVANE_CORPUS"])
CONVERSATIONS = sorted((CORPUS / "scripts/conversations").glob("*.script"))
PEERS = sorted((CORPUS / "scripts/peers").glob("*.script"))


class Scripts(unittest.TestCase):
    def play_all(self, one_by_one: bool) -> int:
        paths = CONVERSATIONS + PEERS
        self.assertGreater(len(paths), 50)
        for path in paths:
            with self.subTest(path.stem):
                asyncio.run(scripted.play(path, one_by_one))
        return len(paths)

    def test_each_goes_as_it_says(self) -> None:
        print(f"python: {self.play_all(one_by_one=False)} scripts agree")

    def test_each_goes_so_when_bytes_come_one_by_one(self) -> None:
        self.play_all(one_by_one=True)

    def test_all_in_progress_ends_wherever_the_widget_dies(self) -> None:
        places = 0
        for path in CONVERSATIONS:
            with self.subTest(path.stem):
                while_dying = 0
                while asyncio.run(scripted.play(path, die_after=while_dying)):
                    while_dying += 1
                self.assertGreater(while_dying, 4)
                places += while_dying
        print(f"python: the widget died at {places} places")


if __name__ == "__main__":
    unittest.main()
