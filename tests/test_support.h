/* Forwards to the shared test support (support/support.h). */
#include "support/support.h"
