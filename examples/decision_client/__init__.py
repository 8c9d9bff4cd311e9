"""A small client of a paid decision endpoint that keeps what it pays within bounds."""
