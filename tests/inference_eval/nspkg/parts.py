"""A module of a folder without an __init__ file (a namespace package)."""

SIZE = 3


class Part:
    def Weight(self):
        return 1.5
