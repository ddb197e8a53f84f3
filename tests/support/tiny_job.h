// TinyJob is declared in support/child.h; this header only forwards to it
// for the tests that include it by this name (network_test.cpp).
#pragma once

#include "support/child.h"
