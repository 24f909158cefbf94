"""What a session hands on when it commits."""
import unittest

import sqlalchemy
from neutron.db.migration.models import head
from neutron.plugins.ml2 import models
from sqlalchemy import orm

from networking_vnagent import changes


class ChangesTest(unittest.TestCase):
    def setUp(self) -> None:
        super().setUp()
        self.handed = []
        changes.subscribe(self.handed.append)
        self.addCleanup(changes.unsubscribe, self.handed.append)
        engine = sqlalchemy.create_engine("sqlite://")
        head.get_metadata().create_all(engine)
        self.session = orm.Session(engine)
        self.addCleanup(self.session.close)

    def bind(self, port: str) -> None:
        self.session.add(models.PortBindingLevel(port_id=port, host="h", level=0, driver="d"))
        self.session.flush()

    def ports(self) -> list[set[str]]:
        return [change.work.ports for change in self.handed]

    def test_nothing_is_handed_on_before_the_commit(self) -> None:
        self.bind("p1")
        self.assertEqual(self.ports(), [])
        self.session.commit()
        self.assertEqual(self.ports(), [{"p1"}])

    def test_a_savepoint_that_is_released_hands_nothing_on(self) -> None:
        self.bind("p1")
        with self.session.begin_nested():
            self.bind("p2")
        self.assertEqual(self.ports(), [])
        self.session.commit()
        self.assertEqual(self.ports(), [{"p1", "p2"}])

    def test_a_savepoint_that_is_rolled_back_keeps_what_came_before(self) -> None:
        self.bind("p1")
        self.session.begin_nested().rollback()
        self.session.commit()
        self.assertEqual(self.ports(), [{"p1"}])

    def test_what_is_rolled_back_is_not_handed_on(self) -> None:
        self.bind("p1")
        self.session.rollback()
        self.bind("p2")
        self.session.commit()
        self.assertEqual(self.ports(), [{"p2"}])


if __name__ == "__main__":
    unittest.main()
