"""How a command ends."""

ANSWERED, FAILED, USAGE, REFUSED, TIMED_OUT, UNAVAILABLE, STORAGE = range(7)
STOPPED = 130

EXIT_CODES = """\
exit codes:
  0    everything that was asked has been answered
  1    some call failed after its attempts, or some file or folder could not be read
  2    an argument is wrong
  3    refused: the budget of the pass or the day's cost cap is used up
  4    the tool's call ran out of its deadline
  5    the endpoint refuses requests, or the credentials, or asks for payment
  6    the ledger or the results cannot be written, or another process uses the ledger
  130  stopped by Ctrl-C, SIGTERM or SIGHUP; a pass ends its calls in flight first
"""


class WrongArgument(Exception):
    """An argument that turned out wrong when it was used; the message names it."""
