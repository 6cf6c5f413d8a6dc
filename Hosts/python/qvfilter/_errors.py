"""Exceptions of the qvfilter package that Python lacks a class for."""


class UnknownInputError(AttributeError, KeyError):
    """A filter has no input of the given key.

    Both an AttributeError (so that hasattr() and getattr() with a default work on filters)
    and a KeyError (an unknown name).
    """

    def __str__(self):
        return str(self.args[0]) if self.args else ""
