"""The metadata is in setup.cfg."""
import setuptools

setuptools.setup()
