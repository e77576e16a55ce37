#include "pysource/infer/infercalls.h"

#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pytext.h"
#include "pysource/symbolinfo.h"

namespace pysource::infer {

nb::object CCallableSupport::GetUnpackedDefInfo(nb::handle single) {
    if (!nb::cast<bool>(single.attr("IsDef")()))
        return nb::none();
    nb::object ibytes = single.attr("ibytes");
    return nb::cast(symbolinfo::PyUnpackDefInfoStr(ibytes));
}

}  // namespace pysource::infer
