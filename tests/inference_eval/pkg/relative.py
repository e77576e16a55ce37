"""Relative imports inside the package."""

from . import shapes, starred
from .shapes import Circle, LargestOf
from .starred import *
from .sub import LEVEL, Deep
from .sub.deep import DEPTH

shapes  # expect: module pkg.shapes
starred  # expect: module pkg.starred
Circle  # expect: type[pkg.shapes.Circle]
Circle(2.0)  # expect: pkg.shapes.Circle
LargestOf([Circle(1.0)])  # expect: pkg.shapes.Shape
public_fn  # expect: def pkg.starred.public_fn
public_fn()  # expect: int
PUBLIC  # expect: str
LEVEL  # expect: int
Deep  # expect: type[pkg.sub.deep.Deep]
DEPTH  # expect: int
starred.hidden_fn()  # expect: str
starred.NOT_LISTED  # expect: int
