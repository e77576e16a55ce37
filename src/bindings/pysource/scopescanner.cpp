// pysource.scopescanner: the scanning core.  Each part of the module binds
// itself from its own header under scopescanner/; module start runs in the
// order below.
#include "bindutil.h"
#include "pysource/scopescanner/bind_perfileinfo.h"
#include "pysource/scopescanner/bind_primaryscanner.h"
#include "pysource/scopescanner/bind_protocol.h"
#include "pysource/scopescanner/bind_scopebodycache.h"
#include "pysource/scopescanner/bind_scopebodyfinder.h"
#include "pysource/scopescanner/bind_secondaryscanner.h"
#include "pysource/scopescanner/module_values.h"

NB_MODULE(scopescanner, m) {
    bindutil::ImportDependencies(
        {"basekit.destroyable", "pysource.logicalline", "pysource._fastaccess",
         "pysource.symbolinfo", "pysource.scopeinfo", "pysource.pgeninspect",
         "basekit.location", "pysource.inferenceengine"});
    m.doc() = "Scan protocol, scope structure and the scanners of Python scopes";

    pysource::InitNoValueMarkers();
    pysource::InitStackItemFreeList();
    scopescanner_bind::BindScanStates(m);

    scopescanner_bind::CModuleValues values;
    scopescanner_bind::BindScanners(m, values);
    scopescanner_bind::BindScopeBodyFinder(m, values);
    scopescanner_bind::BindScopeBodyCache(m);
    scopescanner_bind::BindPerFileInfo(m);
    scopescanner_bind::BindPrimaryScanner(m);
    scopescanner_bind::BindSecondaryScanner(m);
    values.InstallGetattr(m);

    // Torn down with the module's namespace, before the interpreter ends.
    m.attr("_gModuleStateRelease") = nb::capsule(&m, [](void *) noexcept {
        pysource::ReleaseStackItemFreeList();
        pysource::ReleaseScanProtocolState();
    });
}
