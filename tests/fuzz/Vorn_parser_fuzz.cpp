// SPDX-License-Identifier: MIT
// The stream parser beside its slow model.
#include "fuzz/checks.h"
#include "vorn/parser_model.h"

void fuzz(Input in) {
    const std::string input = in.rest(), found = input.size() < 6 ? "" : difference(input);
    require(found.empty(), found.c_str());
}
