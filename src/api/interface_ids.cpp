// The identities of the public interfaces and classes, defined here once for the whole module.
#include "platform/define_guids.h"
// The generated header must come after the switch above.
#include "vekxapi/vekxapi.h"
