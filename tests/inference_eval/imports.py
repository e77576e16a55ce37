"""Imports: absolute, relative (in pkg/), from-imports (of a namespace
package too, nspkg/), star imports with
__all__, dotted imports and aliases."""

import collections
import collections.abc
import json as j
import os
import os.path
import pkg
import pkg.shapes as sh
import pkg.sub.deep
from collections import OrderedDict, defaultdict as dd
from json import dumps
from nspkg import parts
from nspkg.parts import Part
from os import path as osp, sep
from pkg import Shape, make_default
from pkg.shapes import Circle, LargestOf, UNIT
from pkg.starred import *
from pkg.sub import Deep, LEVEL

pkg  # expect: module pkg
pkg.VERSION  # expect: str
pkg.Shape  # expect: type[pkg.shapes.Shape]
pkg.shapes  # expect: module pkg.shapes
pkg.make_default()  # expect: pkg.shapes.Circle
pkg.sub  # expect: module pkg.sub
pkg.sub.deep  # expect: module pkg.sub.deep
pkg.sub.deep.DEPTH  # expect: int
pkg.sub.deep.Deep  # expect: type[pkg.sub.deep.Deep]
pkg.sub.LEVEL  # expect: int
parts.SIZE  # expect: int
Part().Weight()  # expect: float
pkg._hidden  # expect: int
sh  # expect: module pkg.shapes
sh.Circle  # expect: type[pkg.shapes.Circle]
sh.UNIT  # expect: pkg.shapes.Circle
sh.LargestOf  # expect: def pkg.shapes.LargestOf
Shape  # expect: type[pkg.shapes.Shape]
Shape()  # expect: pkg.shapes.Shape
make_default  # expect: def pkg.make_default
make_default()  # expect: pkg.shapes.Circle
Circle  # expect: type[pkg.shapes.Circle]
Circle(1.0)  # expect: pkg.shapes.Circle
UNIT  # expect: pkg.shapes.Circle
LargestOf  # expect: def pkg.shapes.LargestOf
LargestOf([UNIT])  # expect: pkg.shapes.Shape
public_fn  # expect: def pkg.starred.public_fn
public_fn()  # expect: int
PUBLIC  # expect: str
Deep  # expect: type[pkg.sub.deep.Deep]
Deep()  # expect: pkg.sub.deep.Deep
LEVEL  # expect: int

os  # expect: module os
os.path  # expect: module os.path
osp  # expect: module os.path
sep  # expect: str
os.sep  # expect: str
os.getcwd()  # expect: str
j  # expect: module json
j.dumps({})  # expect: str
dumps  # expect: def json.dumps
dumps([1])  # expect: str
collections  # expect: module collections
collections.abc  # expect: module collections.abc
collections.OrderedDict  # expect: type[collections.OrderedDict]
OrderedDict  # expect: type[collections.OrderedDict]
dd  # expect: type[collections.defaultdict]

# A star import takes only the names of __all__: the others keep their values.
hidden_fn = 1.5
NOT_LISTED = "mine"
PUBLIC = 3
from pkg.starred import *  # noqa: E402
hidden_fn  # expect: float
NOT_LISTED  # expect: str
PUBLIC  # expect: str
from pkg import *  # noqa: E402
VERSION  # expect: str
make_default()  # expect: pkg.shapes.Circle


def LocalImports():
    import math
    from math import pi as PI
    import xml.etree.ElementTree as ET

    math  # expect: module math
    math.sqrt(4.0)  # expect: float
    PI  # expect: float
    ET  # expect: module xml.etree.ElementTree
    math.floor(2.5)  # expect: int


if __name__ == "__main__":
    LocalImports()
