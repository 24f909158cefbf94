"""Command line tools."""
