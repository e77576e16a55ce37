"""Helpers shared by the record, info cache and database tests."""

from basekit.location import CLocalFileLocation
from pysource.scopeinfo import CScopeInfo, CScopeInfoKey
from pysource.symbolinfo import Scope

PRIMARY = "primary"
DERIVED = "derived"


def loc_of(directory, name):
    return CLocalFileLocation(str(directory / name))


def primary_record(scope, names, mtime=10.0, inst=None, incomplete=False, ibytes=b""):
    info = CScopeInfo(CScopeInfoKey(scope, PRIMARY, scope), ibytes, mtime, incomplete)
    info.type_equivs.update(names)
    if inst is not None:
        info.inst_type_equivs = dict(inst)
    info.FinishedBuilding()
    return info


def derived_record(target, scanned, names, mtime=10.0, seen=()):
    info = CScopeInfo(CScopeInfoKey(target, DERIVED, scanned), b"", mtime, False)
    info.type_equivs.update(names)
    info.MergeScopesSeen(list(seen) + [scanned], False)
    info.FinalizeForSave()
    return info


def record_summary(info):
    """What a record says, in plain values, for comparing records across processes."""
    if info is None:
        return None

    def scopes(items):
        return sorted((s.loc.fUrl, s.name) for s in (items or ()))

    return {
        "key": (info.key.for_scope.loc.fUrl, info.key.for_scope.name, info.key.scan_name,
                info.key.scanned_scope.loc.fUrl, info.key.scanned_scope.name),
        "ibytes": info.ibytes,
        "disk_mtime": info.disk_mtime,
        "incomplete": info.incomplete,
        "type_equivs": dict(info.type_equivs),
        "inst_type_equivs": dict(info.inst_type_equivs or {}),
        "scopes_seen": scopes(info.scopes_seen),
        "resolved_imports": scopes(info.resolved_imports),
    }


__all__ = ["Scope", "PRIMARY", "DERIVED", "loc_of", "primary_record", "derived_record",
           "record_summary"]
