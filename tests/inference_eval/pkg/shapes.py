class Shape:
    sides = 0

    def __init__(self, name: str = "shape") -> None:
        self.name = name

    def Area(self) -> float:
        return 0.0

    def Describe(self) -> str:
        return self.name


class Circle(Shape):
    def __init__(self, radius: float) -> None:
        super().__init__("circle")
        self.radius = radius

    def Area(self) -> float:
        return 3.14159 * self.radius ** 2


def LargestOf(shapes: list[Shape]) -> Shape:
    return max(shapes, key=lambda s: s.Area())


UNIT = Circle(1.0)
