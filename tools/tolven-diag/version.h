// --version: the tool's version, and the file and build id of each library it runs with.
#pragma once

#include <stdio.h>

namespace tolven_diag_tool {

// As one JSON object with |json|.
void print_version(FILE* out, bool json);

}  // namespace tolven_diag_tool
