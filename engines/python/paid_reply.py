"""The protocol, which is shorter and clearer in Python than in C++. Run as the module is imported."""

from abc import abstractmethod
from typing import Protocol, runtime_checkable


@runtime_checkable
class PaidReply(Protocol):
    """How a bound reads a reply of the decision endpoint; the client's reply type has these.

    The library only reads them, with a lock held; what a property raises propagates. A property
    may use the bound that reads it, but not the RequestRates that does: its lock is a plain one.
    """

    @property
    @abstractmethod
    def cached(self) -> bool:
        """Whether the answer came from the client's cache; cache hits are free."""

    @property
    @abstractmethod
    def input_tokens(self) -> int:
        """The input tokens that the request used."""

    @property
    @abstractmethod
    def cost(self) -> float:
        """What the reply cost, in US dollars."""
