// Compiles the layout checks into the library, so that a build that changes a stored layout
// fails even when nothing else includes the header.
#include "lfib/StoredLayouts.h"
