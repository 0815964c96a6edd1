// SPDX-License-Identifier: MIT
#pragma once

/// The locks of diners, Diner_protection and Diner_external_protection, stand beside Diner, whose Diner::Protection
/// is complete only with them.
#include "glue/diner/Diner.h"
