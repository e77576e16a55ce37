"""Simple conditionals of stub files: names declared under a condition on the
interpreter are wrapped in a conditional single; other files are left alone."""

import pytest

from basekit.location import CLocalFileLocation
from pysource import scopescanner as ss, symbolinfo as si

from managerutil import installed_manager, scan_mgr as mgr  # noqa: F401 (a fixture)
from scanutil import local_file, scan_to_end

STUB = '''\
import sys
if sys.version_info >= (3, 8):
    def f(): ...
# a comment at the left inside the block
    x: int
    if sys.platform == "win32":
        w: int
    z: int
else:
    def g(): ...
y: int
if sys.version_info >= (3, 9):
    a: int
elif sys.version_info >= (3, 7):
    b: int
else:
    c: int
if hasattr(sys, 'spam'):
    h: int
if sys.version_info >= (3, 10): one: int
if sys.version_info >= (3, 11); x:
    semi: int
after: int
'''


def module_names(mgr, tmp_path, text, name):
    loc = local_file(tmp_path, text, name)
    scanner = ss.CWholeFilePrimaryScanner(loc, mgr.fPrimaryScanName)
    assert scan_to_end(scanner)[0] is ss.kFinishedScanning
    info = mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(loc, ""))
    scanner.destroy()
    return dict(info.type_equivs)


def conditions(entry):
    """The conditions of the conditional singles of an entry."""
    out = []
    for single in si.NonNestedSplit(entry, b";"):
        if single.startswith(si.kConditionalPrefix):
            out.append(si.UnpackConditionalInfo(single)[0].replace(" ", ""))
    return out


@pytest.fixture(scope="module")
def stub_names(tmp_path_factory):
    with installed_manager(editor=False) as mgr:
        return module_names(mgr, tmp_path_factory.mktemp("stub"), STUB, "mod.pyi")


class TestStubFile:
    V38 = ["sys.version_info>=(3,8)"]

    @pytest.mark.parametrize("name, expected", [
        ("f", V38), ("x", V38), ("g", ["notsys.version_info>=(3,8)"]), ("y", []),
        # a nested if is no simple condition: the outer one stays
        ("w", V38), ("z", V38),
        # elif ends the chain
        ("a", ["sys.version_info>=(3,9)"]), ("b", []), ("c", []),
        ("h", ["hasattr(sys,'spam')"]),
        # a one-line block "if c: stmt" isn't tracked
        ("one", []), ("after", []),
        ("semi", []),  # a semicolon is not simple
    ])
    def test_conditions_of_each_name(self, stub_names, name, expected):
        assert conditions(stub_names.get(name, b"")) == expected


def test_plain_file_is_never_wrapped(mgr, tmp_path):
    names = module_names(mgr, tmp_path, STUB.replace(";", ""), "mod.py")
    assert all(conditions(entry) == [] for entry in names.values())


class TestSimpleCondition:
    @pytest.fixture
    def scanner(self, tmp_path):
        with installed_manager(editor=False):
            loc = CLocalFileLocation(str(tmp_path / "s.pyi"))
            scanner = ss.CSingleScopePrimaryScanner(si.NormalizedScope(loc, ""), None)
            yield scanner
            scanner.destroy()

    @pytest.mark.parametrize("text, simple", [
        ("sys . version_info >= ( 3 , 8 )", True),
        ("sys . version_info < [ 3 ]", True),
        ("sys . version_info >= 3", False),
        ("sys . version_info [ : 2 ] >= ( 3 , 8 )", False),
        ("sys . version_info [ ( 0 ) ] >= ( 3 , 8 )", True),
        ("sys . version_info is ( 3 , 8 )", False),
        ("sys . platform == 'linux'", False),
        ("hasattr ( x , 'y' )", True),
        ("hasattr ( x )", False),
        ("hasattr ( 1 , 'y' )", False),
        ("hasattr ( x , y )", False),
        ("sys . version_info >= ( 3 ; 8 )", False),
        ("sys . version_info >= ( 3 , )  )", False),
        ("sys . version_info >= ( 3 , , 8 )", False),  # shaped right, doesn't parse
        ("", False),
    ])
    def test_forms(self, scanner, text, simple):
        assert scanner._IsSimpleCondition(text.split()) is simple

    def test_any_error_of_the_parser_means_not_parsable(self, tmp_path):
        class Failing:
            def ParseTokenListToNode(self, tok_list, py3):
                raise KeyError("parser fault")

        with installed_manager(editor=False) as mgr:
            mgr.fPyiLogicalAnalyzer = Failing()
            loc = CLocalFileLocation(str(tmp_path / "f.pyi"))
            scanner = ss.CSingleScopePrimaryScanner(si.NormalizedScope(loc, ""), None)
            assert scanner._IsSimpleConditionParsable(["x"]) is False
            scanner.destroy()
