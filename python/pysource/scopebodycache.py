"""Scope body cache: the bodies of named scopes, and full scope names."""

from pysource.scopescanner import CScopeBodyCache, GetFullNameForScopeDef

__all__ = ["CScopeBodyCache", "GetFullNameForScopeDef"]
