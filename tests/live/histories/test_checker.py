"""Histories that are linearizable and that are not, written by hand."""

import math
import unittest
from typing import Any

from checker import Call, Checker, History
from model import (Agent, Delete, Guard, Holder, Lock, Read, Replace, State, Sync, WritePort)

TIMEOUT = 10.0
DOCUMENT = (("p", 1),), "", "", 0, "syncUnknown"  # of the region that setUp() makes


def status(owner: str, request: str, now: str = "syncUnknown", old: str = "syncUnknown",
           is_armed: bool = False) -> tuple[Any, ...]:
    return 200, now, old, owner, request, request != "", is_armed


class HistoryTest(unittest.TestCase):
    """Each history starts with the region R that has a port p with vlanType 1, at revision 1."""

    def setUp(self) -> None:
        self.calls: list[Call] = []
        self.crashes: list[float] = []
        self.call(0, 1, Replace("R", (("p", 1),)), (201, 1, 1))

    def call(self, invoked: float, returned: float, what: Any, answer: Any = None,
             closed: float = math.inf) -> Call:
        call = Call(len(self.calls), "c", what, invoked, returned, answer, closed)
        self.calls.append(call)
        return call

    def verdict(self) -> Any:
        return Checker(Agent(TIMEOUT), State()).check(History(self.calls, self.crashes))

    def good(self) -> None:
        verdict = self.verdict()
        self.assertTrue(verdict.is_linearizable, verdict)

    def bad(self, at: Call | None = None) -> None:
        verdict = self.verdict()
        self.assertFalse(verdict.is_linearizable)
        if at is not None:
            self.assertIs(verdict.at, at)


class Revisions(HistoryTest):
    def test_overlapping_changes_may_be_in_either_order(self) -> None:
        self.call(2, 5, WritePort("R", "p", 2), (200, 3))
        self.call(3, 4, WritePort("R", "p", 3), (200, 2))
        self.call(6, 7, Read("R", "p"), (200, 3, 3, 2))
        self.good()

    def test_changes_after_each_other_may_not(self) -> None:
        late = self.call(2, 3, WritePort("R", "p", 2), (200, 3))
        self.call(4, 5, WritePort("R", "p", 3), (200, 2))
        self.bad(late)

    def test_two_changes_have_two_revisions(self) -> None:
        self.call(2, 4, WritePort("R", "p", 2), (200, 2))
        self.call(2, 4, WritePort("R", "q", 2), (200, 2))
        self.bad()

    def test_a_read_is_not_stale(self) -> None:
        self.call(2, 3, WritePort("R", "p", 2), (200, 2))
        self.call(4, 5, Read("R", "p"), (200, 1, 1, 1))
        self.bad()

    def test_a_read_beside_a_change_sees_either_but_does_not_go_back(self) -> None:
        self.call(2, 9, WritePort("R", "p", 2), (200, 2))
        self.call(3, 4, Read("R", "p"), (200, 1, 1, 1))
        self.call(5, 6, Read("R", "p"), (200, 2, 2, 2))
        self.good()
        self.call(7, 8, Read("R", "p"), (200, 1, 1, 1))
        self.bad()

    def test_a_refused_change_and_a_dry_run_take_none(self) -> None:
        self.call(2, 3, Delete("R", "q"), (404,))
        self.call(4, 5, WritePort("R", "p", 2, is_dry=True), (200, 1))
        self.call(6, 7, Read(), (200, 1, 1, (("R", DOCUMENT),)))
        self.good()

    def test_a_change_that_is_half_there(self) -> None:
        self.call(2, 3, Replace("R", (("p", 2), ("q", 2))), (200, 2, 2))
        self.call(4, 5, Read("R"), (200, 2, 2, ((("p", 2),), "", "", 0, "syncUnknown")))
        self.bad()


class Conditions(HistoryTest):
    def test_of_two_changes_under_one_condition_one_is_applied(self) -> None:
        guard = Guard(if_match=1)
        self.call(2, 5, WritePort("R", "p", 2, guard), (200, 2))
        other = self.call(3, 6, WritePort("R", "p", 3, guard), (412, 2))
        self.good()
        self.calls[-1] = Call(other.id, "c", other.what, 3, 6, (200, 3))
        self.bad()

    def test_a_refusal_without_reason(self) -> None:
        self.call(2, 3, WritePort("R", "p", 2, Guard(if_match=1)), (412, 1))
        self.bad()

    def test_only_one_creates(self) -> None:
        self.call(2, 5, WritePort("R", "q", 2, Guard(if_absent=True)), (200, 2))
        self.call(2, 5, WritePort("R", "q", 3, Guard(if_absent=True)), (200, 3))
        self.bad()

    def test_writes_of_the_protocol_leave_the_tag(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 5, Replace("R", (), Guard(if_match=1)), (200, 3, 1))
        self.good()


class Outcomes(HistoryTest):
    """Calls whose outcome is not known, kills, and keys."""

    def test_a_cut_call_has_happened_or_not(self) -> None:
        self.call(2, 8, WritePort("R", "p", 2))
        self.call(4, 5, Read("R", "p"), (200, 1, 1, 1))
        self.good()
        self.call(6, 7, Read("R", "p"), (200, 2, 2, 2))
        self.good()

    def test_but_once(self) -> None:
        self.call(2, 20, WritePort("R", "p", 2))
        self.call(4, 5, Read("R", "p"), (200, 2, 2, 2))
        self.call(6, 7, WritePort("R", "p", 3), (200, 3))
        self.call(8, 9, Read("R", "p"), (200, 4, 4, 2))
        self.bad()

    def test_and_not_after_its_end(self) -> None:
        self.call(2, 3, WritePort("R", "p", 2))
        self.call(4, 5, Read("R", "p"), (200, 1, 1, 1))
        self.call(6, 7, Read("R", "p"), (200, 2, 2, 2))
        self.bad()

    def test_what_was_acknowledged_outlives_a_kill(self) -> None:
        self.call(2, 3, WritePort("R", "p", 2), (200, 2))
        self.crashes.append(4)
        self.call(5, 6, Read("R", "p"), (200, 2, 2, 2))
        self.good()
        self.calls[-1] = Call(2, "c", Read("R", "p"), 5, 6, (200, 1, 1, 1))
        self.bad()

    def test_a_kill_ends_what_it_cuts(self) -> None:
        self.call(2, math.inf, WritePort("R", "p", 2))
        self.crashes.append(4)
        self.call(5, 6, Read("R", "p"), (200, 1, 1, 1))
        self.good()
        self.call(7, 8, Read("R", "p"), (200, 2, 2, 2))
        self.bad()

    def test_a_key_is_applied_once(self) -> None:
        what = WritePort("R", "p", 2, Guard(key="k"))
        self.call(2, 3, what, (200, 2))
        again = self.call(4, 5, what, (200, 2))
        self.good()
        self.calls[-1] = Call(again.id, "c", what, 4, 5, (200, 3))
        self.bad()


class Locks(HistoryTest):
    def test_two_holders(self) -> None:
        self.call(2, 4, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(3, 5, Lock("R", "b", "r2"), status("b", "r2"))
        self.bad()

    def test_a_release_between_them(self) -> None:
        self.call(2, 6, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(3, 7, Holder("R", "release", "r1"), (200,))
        self.call(4, 8, Lock("R", "b", "r2"), status("b", "r2"))
        self.good()

    def test_the_line_is_in_order(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 21, Lock("R", "b", "r2", wait=30), status("b", "r2"))
        self.call(5, 6, Sync("R"), (*status("a", "r1"), 1))
        self.call(7, 24, Lock("R", "c", "r3", wait=30), status("c", "r3"))
        self.call(20, 21, Holder("R", "release", "r1"), (200,))
        self.call(22, 23, Holder("R", "release", "r2"), (200,))
        self.call(25, 26, Read(), (200, 6, 6, (("R", ((("p", 1),), "c", "r3", 0, "syncUnknown")),)))
        self.good()

    def test_who_came_later_is_not_first(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 24, Lock("R", "b", "r2", wait=30), status("b", "r2"))
        self.call(5, 6, Sync("R"), (*status("a", "r1"), 1))
        early = self.call(7, 21, Lock("R", "c", "r3", wait=30), status("c", "r3"))
        self.call(20, 21, Holder("R", "release", "r1"), (200,))
        self.call(22, 23, Holder("R", "release", "r3"), (200,))
        self.bad(early)

    def test_a_free_lock_is_not_refused_while_somebody_waits(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 10, Lock("R", "b", "r2", wait=30), status("b", "r2"))
        self.call(5, 6, Holder("R", "release", "r1"), (200,))
        self.call(7, 8, Lock("R", "c", "r3"), (409, None))
        self.bad()

    def test_nobody_is_refused_before_the_end_of_the_wait(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 9, Lock("R", "b", "r2", wait=5), (409, ("a", "r1")))
        self.good()
        self.calls[-1] = Call(2, "c", Lock("R", "b", "r2", wait=5.5), 4, 9, (409, ("a", "r1")))
        self.bad()

    def test_who_hung_up_has_lost_its_place(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 6, Lock("R", "b", "r2", wait=30), closed=5)
        self.call(7, 8, Sync("R"), (*status("a", "r1"), 0))
        self.call(9, 10, Holder("R", "release", "r1"), (200,))
        self.call(11, 12, Lock("R", "c", "r3"), status("c", "r3"))
        self.good()

    def test_who_was_cut_has_lost_its_place_too(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 7, Lock("R", "b", "r2", wait=30))
        self.call(5, 6, Sync("R"), (*status("a", "r1"), 1))
        self.crashes.append(8)
        self.call(9, 10, Sync("R"), (*status("a", "r1"), 0))
        self.good()

    def test_it_may_have_been_granted_before(self) -> None:
        self.call(2, 6, Lock("R", "b", "r2", wait=30), closed=5)
        self.call(7, 8, Sync("R"), (*status("b", "r2"), 0))
        self.good()

    def test_a_write_of_who_has_lost_the_lock(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 5, Holder("R", "release", None, force=True), (200,))
        self.call(6, 7, Lock("R", "b", "r2"), status("b", "r2"))
        stale = self.call(8, 9, WritePort("R", "p", 2, Guard(fence="r1")), (200, 5))
        self.bad(stale)

    def test_an_expiry_is_a_change_and_never_early(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        started = status("a", "r1", "syncInProgress", is_armed=True)
        self.call(4, 5, Holder("R", "start", "r1"), started)
        expired = status("", "", "syncTimedOut", "syncInProgress")
        self.call(14, 15, Sync("R"), (*expired, 0))
        self.call(16, 17, WritePort("R", "p", 2), (200, 5))
        self.good()
        self.calls[-2] = Call(3, "c", Sync("R"), 5, 13.9, (*expired, 0))
        self.bad(self.calls[-2])

    def test_a_kill_gives_the_timer_its_whole_time_again(self) -> None:
        self.call(2, 3, Lock("R", "a", "r1"), status("a", "r1"))
        self.call(4, 5, Holder("R", "start", "r1"),
                  status("a", "r1", "syncInProgress", is_armed=True))
        self.crashes.append(12)
        expired = status("", "", "syncTimedOut", "syncInProgress")
        self.call(13, 21, Sync("R"), (*expired, 0))
        self.bad()


if __name__ == "__main__":
    unittest.main()
