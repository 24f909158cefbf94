"""The end-to-end test of the Neutron driver: the servers, database and agents that it runs, the
operations and faults that it makes, and what it compares."""
