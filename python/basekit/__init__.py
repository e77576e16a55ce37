"""basekit: signals and destruction, file locations, callback adapters."""
