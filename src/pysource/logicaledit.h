// An edit of a text whose logicals are known: only the body that the edit
// falls in is read again.
//
// The edit is the bytes between the text's unchanged start and unchanged
// end.  The innermost def or class whose body holds every line the edit
// touches, before and after, is the edit's scope; the part of the text from
// the line behind its header to the first statement behind the edit that
// leaves its body (or the end of the text) is built again, inside the
// scopes that enclose it, and everything else keeps its logicals, those
// behind the edit moved to their new lines.  Where the edit reaches a
// header, leaves a statement or bracket open at the end of the part, or
// touches no body at all, the whole text has to be built again.
#pragma once

#include "pysource/logicalbuild.h"

namespace pysource {

// The logicals of `new_text` made from `old_list`, the logicals of
// `old_text`, as MergeLogicalLists makes them from a fresh build of the
// whole text; false, with nothing changed, when the edit isn't inside one
// body.
bool UpdateLogicalsForEdit(std::string_view old_text, std::string_view new_text,
                           nb::handle old_list, nb::list &result, nb::list &added,
                           nb::list &removed);

}  // namespace pysource
