"""The exception every rejected call raises."""


class Error(ValueError):
    """A rejected argument or a cancelled call.

    ``identifier`` is ``"shapewiener:<argument>:<reason>"``, the identifier the
    MEX gateway gives the same error in Octave and MATLAB; ``str(error)`` is the
    message.
    """

    def __init__(self, identifier, message):
        super().__init__(message)
        self.identifier = identifier

    def __reduce__(self):
        # Pickled as its two arguments, so that it crosses process borders
        # (a process-based Dask cluster) with its identifier.
        return (type(self), (self.identifier, str(self)))

    def __repr__(self):
        return f"shapewiener.Error({self.identifier!r}, {str(self)!r})"
