"""Random edits inside the functions of open buffers of real files: whatever
the sequence of edits, the buffer's logicals are those of its text built
afresh, and the standalone scan of every scope gives the record that a
whole-file scan of the final text gives."""

import os
import random
import sysconfig
import time

import pytest

from pysource import filellinecache, scopescanner as ss, symbolinfo as si

from editutil import kAnyEdits, random_edit, statements_in_functions
from managerutil import installed_manager
from scanutil import local_file, record_of, records_of_scan, scan_to_end

kFiles = ("textwrap.py", "json/encoder.py", "ftplib.py")
kEditSeconds = 1.0
kMinEdits, kMaxEdits = 20, 200
kLogicalCheckEvery = 5


def standalone_record(loc, name, save=False):
    scanner = ss.CSingleScopePrimaryScanner(si.NormalizedScope(loc, name))
    try:
        assert scan_to_end(scanner)[0] is ss.kFinishedScanning
        if save:
            scanner.SaveToInfoCache()
        return record_of(scanner.fInfo)
    finally:
        scanner.destroy()


def logical_facts(logicals):
    return [(l.fType, l.fFirstLine, l.fLineCount, l.fIndentLevel, l.fTextColumn, l.fText,
             l.fScopeName, l.fLocalScopeName, l.fIncomplete, l.fSpacesInIndent, l.fTabsInIndent,
             l.fPositions) for l in logicals]


def whole_file_records(tmp_path, text, name):
    """The records of a whole-file scan of `text`, with the scanned names."""
    loc = local_file(tmp_path, text, name)
    with installed_manager(editor=False) as mgr:
        scanner = ss.CWholeFilePrimaryScanner(loc, mgr.fPrimaryScanName, None)
        try:
            assert scan_to_end(scanner)[0] is ss.kFinishedScanning
            names = {n for n in scanner._fAllScopeNames if not n.endswith("()")}
        finally:
            scanner.destroy()
        return records_of_scan(mgr, loc, names)


@pytest.mark.parametrize("relpath", kFiles)
def test_scopes_after_random_edits_equal_a_fresh_scan(tmp_path, relpath):
    with open(os.path.join(sysconfig.get_paths()["stdlib"], relpath), encoding="utf-8") as f:
        text = f.read()
    name = os.path.basename(relpath)
    (tmp_path / "edited").mkdir()
    (tmp_path / "fresh").mkdir()
    rng = random.Random(f"edits of {relpath}")
    with installed_manager(editor=True) as mgr:
        loc = local_file(tmp_path / "edited", text, name)
        ana = mgr.fCacheMgr.OpenAnalysis(loc, text)
        for scope_name in whole_file_records(tmp_path / "fresh", text, name):
            standalone_record(loc, scope_name, save=True)
        deadline = time.monotonic() + kEditSeconds
        edits = 0
        while edits < kMaxEdits and (edits < kMinEdits or time.monotonic() < deadline):
            statements = statements_in_functions(ana.fLogicalCache._fLogicalList)
            text, edited = random_edit(rng, text, statements, kAnyEdits)
            ana.SetText(text)
            if edits % kLogicalCheckEvery == 0:
                assert (logical_facts(ana.fLogicalCache._fLogicalList)
                        == logical_facts(filellinecache.BuildLogicalLines(text))), f"edit {edits}"
            standalone_record(loc, edited, save=True)
            edits += 1
        expected = whole_file_records(tmp_path / "fresh", text, name)
        actual = {scope_name: standalone_record(loc, scope_name) for scope_name in expected}
    differing = sorted(n for n in expected if actual[n] != expected[n])
    assert not differing, f"{len(differing)} of {len(expected)} scopes differ after {edits} edits"
