#include "pysource/infer/canonicalize.h"

#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/untracked.h"

namespace pysource::infer {

using symbolinfo::CSingleResolvedInfo;

nb::object CResolvedReducer::Reduce(nb::handle resolved, bool keep_literal_values, bool keep_class_refs) {
    nb::object out = nb::steal(PySet_New(nullptr));
    for (nb::handle item : resolved) {
        nb::object single = nb::borrow(item);
        if (nb::isinstance<CSingleResolvedInfo>(single)) {
            auto *s = nb::inst_ptr<CSingleResolvedInfo>(single);
            if (!keep_class_refs && s->IsClassRef())
                continue;
            if (!keep_literal_values && s->IsLiteral(true)) {
                // The literal's class stands for it: `int 3` and `int 4` fold.
                std::string_view bare = symbolinfo::BareSingle(symbolinfo::TextView(s->ibytes, "ibytes"));
                std::string bare_literal = symbolinfo::BuildLiteralInfo(
                    symbolinfo::UnpackLiteralInfo(bare).class_name, std::nullopt);
                single = nb::cast(nb::ref<CSingleResolvedInfo>(new CSingleResolvedInfo(
                    symbolinfo::ToBytes(bare_literal), s->scope, s->loc, s->fClassRef)));
            }
        }
        if (PySet_Add(out.ptr(), single.ptr()) < 0)
            throw nb::python_error();
    }
    return AtomicFrozenSet(out);
}

}  // namespace pysource::infer
