"""Repeats what the database did not do for a moment.

neutron-lib knows the deadlocks and lost connections of a site's database, but not that SQLite
refuses a writer while there is another one; that is an error of the same kind.
"""
import collections.abc
import functools
import typing

from neutron_lib.db import api as db_api
from oslo_db import exception as db_exc
from sqlalchemy import exc as sql_exc

_Parameters = typing.ParamSpec("_Parameters")
_Result = typing.TypeVar("_Result")


def retry_db_errors(function: collections.abc.Callable[_Parameters, _Result]
                    ) -> collections.abc.Callable[_Parameters, _Result]:
    """A decorator: calls again, as often and with the pauses that neutron-lib has for it. Not for
    calls within a transaction, which would have to be repeated as a whole."""

    @functools.wraps(function)
    def once(*arguments: _Parameters.args, **named: _Parameters.kwargs) -> _Result:
        try:
            return function(*arguments, **named)
        except sql_exc.OperationalError as error:
            if "database is locked" in str(error):
                raise db_exc.RetryRequest(error) from error
            raise

    repeated: collections.abc.Callable[_Parameters, _Result] = db_api.retry_db_errors(once)
    return repeated
