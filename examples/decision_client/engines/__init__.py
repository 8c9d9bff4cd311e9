"""The compiled modules of this package; `cmake --install` puts `decision_bounds` here."""
