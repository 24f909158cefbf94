"""Trunks of baremetal ports."""


def register() -> None:
    """Registers the driver of trunks."""
