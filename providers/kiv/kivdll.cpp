// Library load and unload of the plug-in.
//
// On load the lock that guards the driver binding is created. On unload the
// coordinator goes first (it deletes the nodes still registered, which close
// their driver handles while the driver library is still loaded, and both
// catalogues), then the error catalogue, then ICU's cached data: ICU must not
// be cleaned up while catalogues still hold its resource bundles. The driver
// library, the provider mutex handle and the log writer's state are released
// after this, by their own exit-time destructors.
#include <unicode/uclean.h>

#include "fiprovlib/TarnError.h"
#include "kiv/cachefile/kivapi.h"
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
    deleteKivApiLock();
}

}  // namespace
