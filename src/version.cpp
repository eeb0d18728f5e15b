// The version query: the one function outside the name grammar.
#include "orsm.h"

extern "C" ORSM_API const OrsLibraryVersion* orsmGetLibVersion(void) {
    static const OrsLibraryVersion version = {
        5, 1, 133, 205, {'v', '8', '\0', '\0'}, "liborsmv8-5.1.dylib", "5.1.1", "Jun 17 2006"};
    return &version;
}
