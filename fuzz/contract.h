// A broken contract aborts with its name, so that libFuzzer keeps the input as a finding.
#pragma once

#include <stdio.h>
#include <stdlib.h>

inline void require(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "contract broken: %s\n", what);
        abort();
    }
}
