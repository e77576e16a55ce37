// What all scanners of one file share: the file's location, references to
// the services they use (info cache, logical analyzer, scope body cache),
// the file's grammar, the facts a whole-file scan learns from the content
// (matched modification time, line-end blind checksum), and the file's open
// analysis with the line being edited, both looked up lazily.
#pragma once

#include <nanobind/nanobind.h>

#include <string_view>
#include <unordered_map>

#include "basekit/destroyable.h"

namespace nb = nanobind;

namespace pysource {

class CPerFileInfo_ : public basekit::CDestroyable {
public:
    // Takes the shared services from pysource.manager.GetAnalysisMgr().
    // `incomplete_scope_set`: a set (the scopes whose results could not be
    // saved) or None.
    CPerFileInfo_(nb::handle loc, nb::handle incomplete_scope_set);

    // The file's open analysis, or None; looked up on the first call only.
    virtual nb::object GetAnalysis();
    // The line of the active edit in the file's analysis, -1 for none.  The
    // first call that finds an analysis starts following its
    // "active-edit-lineno-changed" signal.
    virtual Py_ssize_t GetActiveEditLineno();
    virtual void CB_ActiveEditLinenoChanged_(nb::handle ana, Py_ssize_t lineno);

    nb::object fLocation;
    nb::object fInfoCache;
    nb::object fAstAnalyzer;   // the logical analyzer when it isn't a CPGenAnalyzer
    nb::object fPGenAnalyzer;  // the logical analyzer when it is one
    nb::object fPrimaryScanName;
    nb::object fScopeBodyCache;
    // Scope defining logical -> first logical of its body (None for an
    // empty body).
    nb::dict fSubScopeBody0;
    // Scope defining logical -> (what the parts of its definition info were
    // worked out from, the parts): the scan of a scope leaves them for the
    // scan of the scope around it, which would work out the same again.
    nb::dict fScopeDefInfoParts;
    nb::object _fAnalysis;
    bool _fAttemptedToGetAnalysis = false;
    bool _fConnectedToActiveLinenoSignal = false;
    Py_ssize_t _fActiveEditLineno = -1;
    nb::object fMatchedDiskMTime;
    nb::object fEOLBlindChecksum;
    nb::object fIncompleteScopeSet;
    bool fPyiFile = false;
    bool fPy3Grammar = false;

    // A name of the analyzer's pairs as str (bytes are read as UTF-8): one
    // str per spelling for the whole file, so that a name is decoded, and
    // its hash worked out, once however often the file's scopes name it.
    nb::object NameText(nb::handle name);

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

private:
    // Spelling (the UTF-8 of the str it maps to, which the map keeps) ->
    // str.  Strings lead back to nothing: the collector needn't see them.
    std::unordered_map<std::string_view, nb::object> fNameTexts_;
};

}  // namespace pysource
