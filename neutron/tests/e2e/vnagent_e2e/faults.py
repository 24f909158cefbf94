"""Random faults: what is killed, paused and robbed of its state while operations run."""

from __future__ import annotations

import collections
import os
import random
import signal
from collections.abc import Callable
from threading import Event

from .processes import Failed
from .wire import Mode
from .world import World


def signal_process(pid: int, number: signal.Signals) -> None:
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        pass


class Faults:
    """Makes one fault after the other until `ending` is set; then everything runs again."""

    def __init__(self, world: World, rng: random.Random, ending: Event, pause: float) -> None:
        self.world = world
        self.rng = rng
        self.ending = ending
        self.pause = pause
        self.made: collections.Counter[str] = collections.Counter()
        self.error: BaseException | None = None
        self.kinds: list[tuple[Callable[[], None], float]] = [
            (self.kill_worker, 4), (self.pause_worker, 3), (self.kill_server, 2),
            (self.pause_server, 2), (self.kill_agent, 4), (self.pause_agent, 3),
            (self.lose_agents_state, 1.5), (self.stop_agent_for_a_while, 2),
            (self.kill_database, 1), (self.pause_database, 2),
            (self.cut_answers, 2), (self.answer_nonsense, 1), (self.answer_slowly, 1),
            (self.fill_disk, 1),
        ]

    def run(self) -> None:
        try:
            while not self.ending.wait(self.rng.uniform(0.5, 1.5) * self.pause):
                fault = self.rng.choices([kind[0] for kind in self.kinds],
                                         [kind[1] for kind in self.kinds])[0]
                self.made[fault.__name__] += 1
                fault()
        except BaseException as error:  # pylint: disable=broad-except
            self.error = error  # The thread that joins raises it.

    def hold(self, longest: float) -> None:
        """How long something stays paused or dead; ends early when the round does."""
        self.ending.wait(self.rng.uniform(0.1, longest))

    def kill_worker(self) -> None:
        """The server starts another one."""
        workers = self.rng.choice(self.world.servers).workers()
        if workers:
            signal_process(self.rng.choice(workers), signal.SIGKILL)

    def pause_worker(self) -> None:
        workers = self.rng.choice(self.world.servers).workers()
        if workers:
            pid = self.rng.choice(workers)
            signal_process(pid, signal.SIGSTOP)
            self.hold(4)
            signal_process(pid, signal.SIGCONT)

    def kill_server(self) -> None:
        server = self.rng.choice(self.world.servers)
        server.program.kill()
        self.hold(3)
        server.start()
        server.wait()

    def pause_server(self) -> None:
        server = self.rng.choice(self.world.servers)
        server.program.pause()
        self.hold(4)
        server.program.resume()

    def kill_agent(self) -> None:
        agent = self.rng.choice(list(self.world.agents.values()))
        agent.program.kill()
        agent.start()

    def stop_agent_for_a_while(self) -> None:
        agent = self.rng.choice(list(self.world.agents.values()))
        agent.program.stop()
        self.hold(6)
        agent.start()

    def pause_agent(self) -> None:
        agent = self.rng.choice(list(self.world.agents.values()))
        agent.program.pause()
        self.hold(5)
        agent.program.resume()

    def lose_agents_state(self) -> None:
        self.rng.choice(list(self.world.agents.values())).lose_state()

    def spoil_wire(self, mode: Mode) -> None:
        wire = self.rng.choice(list(self.world.agents.values())).wire
        wire.mode = mode
        self.hold(6)
        wire.mode = Mode.FINE

    def cut_answers(self) -> None:
        self.spoil_wire(Mode.CUT)

    def answer_nonsense(self) -> None:
        self.spoil_wire(Mode.NONSENSE)

    def answer_slowly(self) -> None:
        self.spoil_wire(Mode.SLOW)

    def fill_disk(self) -> None:
        self.spoil_wire(Mode.FULL)

    def kill_database(self) -> None:
        self.world.database.kill()
        self.hold(3)
        self.world.database.start()

    def pause_database(self) -> None:
        self.world.database.program.pause()
        self.hold(3)
        self.world.database.program.resume()


def check_everything_runs(world: World) -> None:
    """Raises Failed naming the first program that is not running."""
    for program in [world.database.program, *(server.program for server in world.servers),
                    *(agent.program for agent in world.agents.values())]:
        if not program.running():
            raise Failed(f"{program.name} ended by itself, status {program.ended()}:\n"
                         f"{program.tail(30)}")
