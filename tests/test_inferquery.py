"""Inference queries at a line: the scope and logical index of a line (checked
against the indexes the primary scan records), the scan-and-retry loop, the
canonical text of singles, and the `pysource infer` command."""

import json
import os
import textwrap

import pytest

from basekit.location import CLocalFileLocation
from pysource import cli, inferenceengine, inferquery, manager, symbolinfo

SOURCE = textwrap.dedent('''\
    """Doc."""
    import os
    # a comment
    alpha = 1

    @staticmethod
    def outer(arg):
        # inside
        beta = [i for i in arg]
        gamma = (1 +
                 2)
        def inner():
            delta = beta
            return delta
        if beta: epsilon = 2
        return gamma
        # trailing, still outer's
    # back at module level
    class Holder:
        zeta = 1
        def method(self):
            self.eta = 2
            return self.eta
        theta = zeta
    iota = alpha
    lam = lambda q: q + alpha
    squares = [
        n * n for n in range(3)]
    ''')


@pytest.fixture
def mgr():
    mgr = manager.CAnalysisMgr(db_path=None)
    yield mgr
    mgr.destroy()


@pytest.fixture
def source_loc(tmp_path):
    path = tmp_path / "source.py"
    path.write_text(SOURCE)
    return CLocalFileLocation(str(path))


def line_of(needle, text=SOURCE):
    return next(n for n, line in enumerate(text.splitlines(), 1) if needle in line)


class TestPosition:
    @pytest.mark.parametrize("needle, scope", [
        ("import os", ""), ("alpha = 1", ""), ("@staticmethod", ""), ("def outer", ""),
        ("# inside", "outer"), ("beta = [", "outer"), ("2)", "outer"), ("def inner", "outer"),
        ("delta = beta", "outer.inner"), ("return delta", "outer.inner"),
        ("if beta", "outer"), ("# trailing", "outer"), ("# back at module", ""),
        ("class Holder", ""), ("zeta = 1", "Holder"), ("def method", "Holder"),
        ("self.eta = 2", "Holder.method"), ("theta", "Holder"), ("lam = lambda", ""),
        ("n * n for", ""),
    ])
    def test_scope_at_line(self, mgr, source_loc, needle, scope):
        assert inferquery.ScopeAtLine(mgr, source_loc, line_of(needle)).name == scope

    def test_every_recorded_index_names_the_line_it_came_from(self, mgr, source_loc):
        """The `:#N` suffixes, first sets (`:S`) and first reads (`:g`) of the
        real records, turned back into lines, are where each name is set or
        read first."""
        inferquery.EnsureIndexed(mgr, source_loc)
        source_lines = SOURCE.splitlines()
        logicals = inferquery.FileLogicals(source_loc)
        text_of = {   # (scope, index) -> the text of the lines of that body logical
            position: "\n".join(source_lines[lg.fFirstLine - 1:lg.fFirstLine - 1 + lg.fLineCount])
            for lg, position in zip(logicals, inferquery.BodyPositions(logicals))}
        checked = 0
        for scope_name in mgr.fInfoCache.GetScopesForLoc(source_loc):
            if symbolinfo.IsInstanceScope(scope_name):
                continue
            info = mgr.fInfoCache.GetScopeInfo(symbolinfo.Scope(source_loc, scope_name))
            for name, compound in info.type_equivs.items():
                for single in symbolinfo.NonNestedSplit(compound, b";"):
                    _bare, index = symbolinfo.SplitLogicalIndexSuffix(single)
                    if index is None and single[:2] in (b":S", b":g") and single[2:]:
                        index = int(single[2:])
                    if index is None or index < 0:
                        continue
                    text = text_of[(scope_name, index)]
                    assert name.rpartition(".")[2] in text, (scope_name, name, single, text)
                    checked += 1
        assert checked > 20

    def test_a_blank_line_is_at_the_next_statement_and_the_end_after_the_last(self, tmp_path):
        path = tmp_path / "blank.py"
        path.write_text("x = 1\n\ndef f():\n    pass\n\n\n")
        loc = CLocalFileLocation(str(path))
        assert [inferquery.PositionAtLine(loc, n) for n in range(1, 7)] == \
            [("", 0), ("", 1), ("", 1), ("f", 0), ("", 2), ("", 2)]

    @pytest.mark.parametrize("lineno", [0, -3, 10_000])
    def test_lines_outside_the_file(self, source_loc, lineno):
        with pytest.raises(inferquery.CLineOutsideFile):
            inferquery.PositionAtLine(source_loc, lineno)


class _CFakeEngine(inferenceengine.CInferenceEngine):
    """Answers an expression with the single of `fAnswer` once the file
    `fNeeds` has records; until then asks for its primary scan."""

    def __init__(self, info_cache, needs, answer, always_incomplete=False):
        super().__init__(info_cache, None, None)
        self.fNeeds = needs
        self.fAnswer = answer
        self.fAlwaysIncomplete = always_incomplete
        self.fCalls = []

    def ResolveToResult(self, expr, ctx):
        self.fCalls.append(expr.name)
        scope = symbolinfo.Scope(self.fNeeds, "")
        if self.fAlwaysIncomplete or not self.fInfoCache.GetScopesForLoc(self.fNeeds):
            ctx.SetIncomplete("needs-scan")
            ctx.AddNeedsScan(scope, "primary")
            return inferenceengine.CResolveResult(frozenset())
        single = symbolinfo.CSingleResolvedInfo(self.fAnswer, scope)
        return inferenceengine.CResolveResult(frozenset([single]))


class TestResolveAt:
    @pytest.fixture
    def other_loc(self, tmp_path):
        path = tmp_path / "other.py"
        path.write_text("class Thing:\n    pass\n")
        return CLocalFileLocation(str(path))

    def test_the_needed_scan_runs_and_the_resolve_is_tried_again(self, mgr, source_loc,
                                                                 other_loc):
        engine = _CFakeEngine(mgr.fInfoCache, other_loc, b":iThing,,()")
        mgr.fInferenceEngine._fNativeEngine = engine
        singles, complete = inferquery.ResolveAt(mgr, source_loc, line_of("iota"), "alpha")
        assert complete
        assert inferquery.DescribeResolved(singles, mgr, source_loc) == ["other.Thing"]
        index = inferquery.PositionAtLine(source_loc, line_of("iota"))[1]
        assert engine.fCalls == [f"alpha:#{index}"] * 2
        # The asked file was indexed first, the needed one on request.
        assert mgr.fInfoCache.GetScopesForLoc(source_loc)
        assert "Thing" in mgr.fInfoCache.GetScopesForLoc(other_loc)

    def test_a_file_changed_since_its_scan_is_scanned_again(self, mgr, other_loc):
        inferquery.EnsureIndexed(mgr, other_loc)
        with open(other_loc.fPath, "a") as f:
            f.write("def added():\n    pass\n")
        st = os.stat(other_loc.fPath)
        os.utime(other_loc.fPath, ns=(st.st_atime_ns, st.st_mtime_ns + 2_000_000_000))
        inferquery.EnsureIndexed(mgr, other_loc)
        assert "added" in mgr.fInfoCache.GetScopesForLoc(other_loc)

    def test_an_engine_that_keeps_asking_gets_a_partial_answer(self, mgr, source_loc, other_loc):
        engine = _CFakeEngine(mgr.fInfoCache, other_loc, b"", always_incomplete=True)
        mgr.fInferenceEngine._fNativeEngine = engine
        singles, complete = inferquery.ResolveAt(mgr, source_loc, 1, "os")
        assert not complete and singles == frozenset()
        assert len(engine.fCalls) == 2   # asked again once after the scan, then gave up


class TestDescribe:
    @pytest.fixture
    def finder(self, mgr):
        return mgr.fInferenceEngine._fNativeEngine.fModuleFinder

    @pytest.mark.parametrize("module, ibytes, text", [
        ("builtins", b":lint,3", "int"),
        ("builtins", b":lNoneType", "None"),
        ("builtins", b":ilist[int],,", "list[int]"),
        ("builtins", b":Bstr", "type[str]"),
        ("builtins", b":iDict[str, Optional[List[int]]],,", "dict[str, list[int] | None]"),
        ("builtins", b":iTuple[Union[str, int], ...],,", "tuple[int | str, ...]"),
        ("builtins", b":ff|0,,(x),int:#4", "def f"),
        ("collections", b":iOrderedDict,,()", "collections.OrderedDict"),
        ("collections", b":COrderedDict|0,,(dict)", "type[collections.OrderedDict]"),
        ("collections", b":mCounter.most_common|1,,(self),", "def collections.Counter.most_common"),
        ("os", b":Mos.path", "module os.path"),
        ("os", b":<%,:Ios", "module os"),
        ("os", b":Ios.path:#0", "module os"),
        ("os", b":nxml.etree.ElementTree", "module xml.etree.ElementTree"),
    ])
    def test_singles_of_other_modules(self, mgr, source_loc, finder, module, ibytes, text):
        module_scope = symbolinfo.Scope(finder.FindModule(module, None), "")
        single = symbolinfo.CSingleResolvedInfo(ibytes, module_scope)
        assert inferquery.DescribeSingle(single, mgr, source_loc) == text

    def test_names_of_the_asked_file_and_built_ins_stay_unqualified(self, mgr, source_loc,
                                                                     tmp_path):
        scope = symbolinfo.Scope(source_loc, "")
        singles = [symbolinfo.CSingleResolvedInfo(b, scope)
                   for b in (b":iHolder.Inner|1,,()", b":uHolder.method|0,,(self),",
                             b":CHolder|0,,()", b":lint,1", b":lint,2", b":Bstr")]
        other = symbolinfo.Scope(CLocalFileLocation(str(tmp_path / "other.py")), "")
        singles += [symbolinfo.CSingleResolvedInfo(b":lfloat,1.5", other),
                    symbolinfo.CSingleResolvedInfo(b":iThing,,()", other)]
        assert inferquery.DescribeResolved(singles, mgr, source_loc) == \
            ["Holder.Inner", "def Holder.method", "float", "int", "other.Thing", "type[Holder]",
             "type[str]"]

    def test_where_singles_are_defined(self, mgr, source_loc):
        scope = symbolinfo.Scope(source_loc, "")
        method, literal, module = [symbolinfo.CSingleResolvedInfo(b, scope) for b in
                                   (b":uHolder|0.method|0,,(self),", b":lint,1", b":Mos")]
        assert inferquery.DefinitionOf(method, mgr) == (source_loc.fPath, line_of("def method"))
        path, line = inferquery.DefinitionOf(literal, mgr)
        assert path.endswith("builtins.pyi") and line > 0
        path, line = inferquery.DefinitionOf(module, mgr)
        assert path.endswith("os/__init__.pyi") and line is None


class TestInferCommand:
    def run(self, capsys, *argv):
        code = cli.main(["infer", *argv])
        out, err = capsys.readouterr()
        return code, out, err

    @pytest.fixture
    def answering(self, monkeypatch):
        """The engine of every new manager answers any expression with an
        instance of the asked file's Holder and the built-in int."""
        class Engine(inferenceengine.CInferenceEngine):
            fDatabasesRead = []

            def ResolveToResult(self, expr, ctx):
                self.fDatabasesRead.append(self.fInfoCache.fDatabasePath)
                loc = expr.scope.loc
                mf = self.fModuleFinder
                return inferenceengine.CResolveResult(frozenset([
                    symbolinfo.CSingleResolvedInfo(b":iHolder,,()", symbolinfo.Scope(loc, "")),
                    symbolinfo.CSingleResolvedInfo(
                        b":lint", symbolinfo.Scope(mf.FindModule("builtins", None), ""))]))
        monkeypatch.setattr(manager.inferenceengine, "CInferenceEngine", Engine)
        return Engine

    def test_values_with_where_they_are_defined(self, capsys, source_loc, answering):
        target = f"{source_loc.fPath}:{line_of('iota')}"
        code, out, err = self.run(capsys, target, "alpha")
        assert code == 0 and err == ""
        lines = out.splitlines()
        assert lines[0] == f"Holder  ({cli._display_path(source_loc.fPath)}:{line_of('class Holder')})"
        assert lines[1].startswith("int  (") and "builtins.pyi:" in lines[1]
        code, out, _ = self.run(capsys, target, "alpha", "--json")
        data = json.loads(out)
        assert code == 0 and data["complete"] and data["scope"] == ""
        assert [v["text"] for v in data["values"]] == ["Holder", "int"]
        assert data["values"][0]["line"] == line_of("class Holder")

    @pytest.mark.parametrize("target, expr, code, message", [
        ("{path}:4", "never_defined", cli.kExitFailed, "nothing is known of 'never_defined'"),
        ("{path}:999", "alpha", cli.kExitUsage, "line 999 is outside the file"),
        ("{path}:0", "alpha", cli.kExitUsage, "line 0 is outside the file"),
        ("{path}", "alpha", cli.kExitUsage, "expected FILE:LINE"),
        ("{path}:x", "alpha", cli.kExitUsage, "expected FILE:LINE"),
        ("nowhere.py:3", "alpha", cli.kExitUsage, "no such file: nowhere.py"),
        ("{path}:4", "alpha +", cli.kExitUsage, "cannot parse the expression 'alpha +'"),
    ])
    def test_messages_and_exit_codes(self, capsys, source_loc, target, expr, code, message):
        got, out, err = self.run(capsys, target.format(path=source_loc.fPath), expr)
        assert (got, out) == (code, "") and message in err

    def test_an_index_is_used_read_only_and_a_missing_one_is_an_error(self, capsys, tmp_path,
                                                                       source_loc, answering):
        db = tmp_path / "index.db"
        assert cli.main(["index", source_loc.fPath, "--db", str(db)]) == 0
        capsys.readouterr()
        answering.fDatabasesRead.clear()  # the index's derived pass asked too
        before = db.read_bytes()
        code, out, _ = self.run(capsys, f"{source_loc.fPath}:4", "alpha", "--db", str(db))
        assert code == 0 and out.startswith("Holder")
        assert answering.fDatabasesRead == [str(db)]
        assert db.read_bytes() == before
        code, _, err = self.run(capsys, f"{source_loc.fPath}:4", "alpha", "--db",
                                str(tmp_path / "none.db"))
        assert code == cli.kExitDatabase and "no such index database" in err
