from .deep import Deep

LEVEL = 2
