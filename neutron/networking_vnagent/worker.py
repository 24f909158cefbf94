"""The process of a server that publishes, beside those that answer calls."""
import threading
import typing

from neutron_lib import worker
from oslo_config import cfg

TITLE = "vnagent publisher"


class PublisherWorker(worker.BaseWorker):
    """Started by Neutron's server after it was forked, and started again when it was killed."""

    def __init__(self, start: typing.Callable[[], None]) -> None:
        super().__init__(worker_process_count=1, set_proctitle=cfg.CONF.setproctitle, desc=TITLE)
        self._start = start
        self._ended = threading.Event()

    def start(self, name: str = "neutron-server", desc: str | None = None) -> None:
        self._ended.clear()
        super().start(name=name, desc=desc)
        self._start()

    def stop(self) -> None:
        """The threads end with the process: what they have not sent is looked for at the next
        start, as after a kill."""
        self._ended.set()

    def wait(self) -> None:
        self._ended.wait()

    def reset(self) -> None:
        """The options count from the next start on."""
