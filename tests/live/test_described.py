"""The comparison of what was answered with what is described."""

import json
import tempfile
import unittest
from pathlib import Path
from typing import Any

from described import differences, find, operations


def answers(*media: str) -> dict[str, Any]:
    return {"content": {name: {} for name in media}}


DESCRIPTION = {"paths": {
    "/a": {"get": {"responses": {"200": answers("text/plain"), "404": answers("p")}}},
    "/a/{place}": {"get": {"responses": {"200": answers("text/plain")}}},
    "/a/b/{name}": {"get": {"responses": {"200": answers("text/plain")}},
                    "head": {"responses": {"200": {}}}},
}}
ALL = [["GET", "/a", 200, "text/plain"], ["GET", "/a", 404, "p"],
       ["GET", "/a/x/y", 200, "text/plain"], ["GET", "/a/b/c", 200, "text/plain"],
       ["HEAD", "/a/b/c", 200, "text/plain"]]


class Described(unittest.TestCase):
    def compare(self, seen: list[list[Any]]) -> list[str]:
        with tempfile.TemporaryDirectory() as folder:
            for number, answer in enumerate(seen):
                Path(folder, f"{number}.json").write_text(json.dumps([answer]))
            return differences(DESCRIPTION, Path(folder))

    def test_all_that_is_described_was_seen(self) -> None:
        self.assertEqual(self.compare(ALL), [])

    def test_what_was_never_seen_is_named(self) -> None:
        self.assertEqual(self.compare(ALL[1:]), ["described, and never seen: GET /a: 200"])
        self.assertIn("no answers were kept", self.compare([]))

    def test_what_is_not_described_is_named(self) -> None:
        for answer in (["GET", "/a", 500, "p"], ["PUT", "/a", 200, "text/plain"],
                       ["GET", "/other", 200, "text/plain"]):
            with self.subTest(answer):
                self.assertEqual(len(self.compare([*ALL, answer])), 1)
        self.assertEqual(self.compare([*ALL, ["PUT", "/a", 405, "p"]]), [])

    def test_media_types_count(self) -> None:
        self.assertEqual(len(self.compare([*ALL, ["GET", "/a", 404, "text/plain"]])), 1)

    def test_the_operation_that_says_most_of_the_path_is_meant(self) -> None:
        known = operations(DESCRIPTION)
        for path, expected in (("/a", "/a"), ("/a/x/y", "/a/{place}"), ("/a/b/c", "/a/b/{name}"),
                               ("/a/b/c/d", "/a/{place}")):
            operation = find(known, "GET", path)
            self.assertIsNotNone(operation)
            self.assertEqual(operation.path, expected)
        self.assertIsNone(find(known, "PUT", "/a"))


if __name__ == "__main__":
    unittest.main()
