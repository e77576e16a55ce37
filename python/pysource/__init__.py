"""pysource: the scanning core of a Python code-analysis engine."""

__version__ = "0.1.0"
