// --version: the tool's version, and the file and build id of each library it runs with.
#pragma once

#include <stdio.h>

namespace tolven_diag_tool {

void print_version(FILE* out);

}  // namespace tolven_diag_tool
