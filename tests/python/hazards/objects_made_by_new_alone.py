"""Objects that `__new__` made and no `__init__` filled, asked for all that they have."""

from support import Reply, attempt, boom, bounds

ARGUMENTS = (), (1.0,), (Reply(),), (1, 1), (boom, 1), (1, boom, boom)


def main():
    for kind in ("Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"):
        made = getattr(bounds, kind)
        for name in (name for name in dir(made) if not name.startswith("__reduce")):
            thing = made.__new__(made)
            for arguments in ARGUMENTS:
                attempt(lambda arguments=arguments: getattr(thing, name)(*arguments))
                # As a host binds what it has replaced:
                attempt(lambda arguments=arguments: vars(made)[name].__get__(thing)(*arguments))
            for change in (setattr, thing, name, None), (delattr, thing, name):
                attempt(*change)
                attempt(repr, thing)
