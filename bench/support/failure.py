"""The one way in which the benchmark gives up."""


class Failure(Exception):
    """Something is missing or answers wrongly: one line for the user."""
