// Library load and unload of the plug-in.
//
// On load the lock that guards the driver binding is created. The unload
// routine is the one place where the process-wide objects are destroyed, in
// this order: the coordinator (it deletes the nodes still registered, which
// trace and close their driver handles while the driver library is still
// loaded, and both catalogues), the error catalogue, ICU's cached data (not
// while catalogues still hold its resource bundles), the driver library, the
// provider mutex handle, the binding lock, and last the log writer's state
// and the trace depth registry, which everything before may still use.
//
// The routine runs when the host unloads the plug-in and also when the
// process exits with the plug-in loaded. In the second case the C++ runtime
// has already run the exit-time destructors of every library by then, so none
// of the objects above has one: each is released here and nowhere else.
#include <unicode/uclean.h>

#include "fiprovlib/TarnError.h"
#include "fiprovlib/TraceMethod.h"
#include "kiv/cachefile/kivapi.h"
#include "kiv/cachefile/providermutex.h"
#include "kiv/kivficoordinator.h"

namespace {

__attribute__((constructor)) void kivdllProcessAttach() {
    // Linux delivers no per-thread attach notifications to libraries, so
    // there is nothing to turn off here.
    initKivApiLock();
}

__attribute__((destructor)) void kivdllProcessDetach() {
    KivFiCoordinator::destroyInstance();
    releaseErrorCatalogue();
    u_cleanup();
    releaseKivApi();
    releaseProviderMutex();
    deleteKivApiLock();
    releaseTraceState();
}

}  // namespace
