"""Scope body cache: the bodies of named scopes, and full scope names."""

from pysource.scopescanner import GetFullNameForScopeDef

__all__ = ["GetFullNameForScopeDef"]
