"""Neutron keeps the switches of live agents up to date."""
