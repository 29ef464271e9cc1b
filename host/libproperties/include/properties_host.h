// Host system properties, over Android's host property store in libbase. property_get and
// property_set are declared with the platform prototypes (tolven_diag_platform.h).
#pragma once

#include "tolven_diag_platform.h"

// On the host, property_set(key, NULL or "") makes |key| unset again.
