"""A request to the decision endpoint, and what comes back."""

import hashlib
import json
from dataclasses import dataclass
from functools import cached_property

INSTRUCTIONS = {
    "triage": (
        "You read one source file of a larger program. Say what should be done with it next: "
        "keep it, review it because its author left notes of unfinished work, or split it "
        "because it is too long to be read in one sitting. Answer with the word and the reason."
    ),
    "audit": (
        "You read one source file of a larger program as its auditor. Say whether to keep it, "
        "review it or split it. Weigh how it handles errors, what it does with input from "
        "outside, and what its comments promise. Answer with the word and all your findings."
    ),
}
"""What is asked of the endpoint, by feature: the client's name for one kind of request."""


@dataclass(frozen=True)
class Request:
    """One question about one text. It is never changed, so its body is encoded only once."""

    feature: str
    text: str

    @cached_property
    def body(self) -> bytes:
        """What is sent: the feature, its instructions and the text, as JSON."""
        question = {
            "feature": self.feature,
            "instructions": INSTRUCTIONS[self.feature],
            "text": self.text,
        }
        return json.dumps(question, ensure_ascii=False).encode()

    @property
    def size(self) -> int:
        """Bytes of the whole body.

        The instructions are paid for with every text. Were the text measured alone, an empty
        file would look endlessly dear per byte, and every large file would be held at that rate.
        """
        return len(self.body)

    @cached_property
    def key(self) -> str:
        """The same question has the same key; the cache finds its answer by it."""
        return hashlib.sha256(self.body).hexdigest()


@dataclass(frozen=True)
class DecisionResult:
    """A reply of the endpoint, or an answer from the cache; the bounds read it as a `PaidReply`."""

    decision: str
    cached: bool
    input_tokens: int
    """Input tokens that the request used; 0 for an answer from the cache."""
    cost: float
    """US dollars; 0.0 for an answer from the cache."""
