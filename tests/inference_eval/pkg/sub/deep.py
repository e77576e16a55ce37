"""Relative imports that climb out of a subpackage."""

from .. import VERSION
from .. import shapes
from ..shapes import Circle as Round
from . import deep as myself

DEPTH = 3


class Deep:
    def Shape(self) -> Round:
        return Round(2.0)


VERSION  # expect: str
shapes  # expect: module pkg.shapes
Round  # expect: type[pkg.shapes.Circle]
Round(1.0)  # expect: pkg.shapes.Circle
shapes.UNIT  # expect: pkg.shapes.Circle
shapes.Shape  # expect: type[pkg.shapes.Shape]
Deep().Shape()  # expect: pkg.shapes.Circle
Deep().Shape().radius  # expect: float
myself  # expect: module pkg.sub.deep
