// Host system properties, over Android's host property store in libbase. property_get is
// declared with the platform prototypes (tolven_diag_platform.h); the host adds a setter.
#pragma once

#include "tolven_diag_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

// Sets |key| to |value| (NULL or "" makes it unset again). Returns 0, or -1 for a NULL key.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
