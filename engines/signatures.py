"""Signatures with defaults that are objects, which the text of a docstring cannot show; and how the
records are matched, copied and pickled.

Run as the module is imported, with its names and with PARAMETERS: of each class of the stub the
parameters of __init__, a tuple of the name and, if there is one, the default; ... for an object.
"""

OBJECTS = {"give_back": _nothing, "should_stop": never}


class Factory:
    def __repr__(self):
        return "<factory>"


class Signature:
    def __init__(self, owner):
        self.owner, self.parameters = owner, PARAMETERS[owner.__name__]

    def __get__(self, instance, cls):
        if cls.__init__ is not self.owner.__init__ or cls.__new__ is not self.owner.__new__:
            raise AttributeError("__signature__")  # a derived class has parameters of its own
        import inspect  # which is slow to import

        def parameter(name, default=inspect.Parameter.empty):
            default = OBJECTS.get(name, Factory()) if default is ... else default
            kind = inspect.Parameter.POSITIONAL_OR_KEYWORD
            return inspect.Parameter(name, kind, default=default)

        return inspect.Signature([parameter(*given) for given in self.parameters])


for owner in (Share, RunBudget):
    owner.__signature__ = Signature(owner)
for record in (_Held, _Charges, RunBudget):
    record.__match_args__ = tuple(name for name, *_ in PARAMETERS[record.__name__])


def reduce_to(names):
    def __reduce__(self):
        return type(self), tuple(getattr(self, name) for name in names), vars(self) or None

    return __reduce__


for record in (_Held, _Charges):
    record.__reduce__ = reduce_to(record.__match_args__)
