"""Preferences of the analysis process.

There are no configuration files: a host sets values at run time through the
analysis manager's `fPrefMgr`.
"""

# Whether the derived scan resolves function calls and records what callers pass.
kAnalyzeFunctionCalls = "analyze-function-calls"

_kDefaults = {
    kAnalyzeFunctionCalls: True,
}


class CPrefMgr:
    """Holds preference values by key; unknown keys are an error, so that a
    misspelt key is found at once instead of silently reading a default."""

    def __init__(self, values=None):
        self._fValues = dict(_kDefaults)
        for key, value in (values or {}).items():
            self.SetValue(key, value)

    def GetValue(self, key):
        try:
            return self._fValues[key]
        except KeyError:
            raise KeyError(f"unknown preference {key!r}") from None

    def SetValue(self, key, value):
        if key not in _kDefaults:
            raise KeyError(f"unknown preference {key!r}")
        previous = self._fValues[key]
        self._fValues[key] = value
        return previous

    def __getitem__(self, key):
        return self.GetValue(key)
