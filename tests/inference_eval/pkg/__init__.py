"""A small package for the import cases of the evaluation set."""

from .shapes import Circle, Shape

__all__ = ["Shape", "VERSION", "make_default"]

VERSION = "1.0"
_hidden = 3


def make_default() -> Circle:
    return Circle(1.0)
