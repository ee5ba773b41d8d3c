#pragma once
// Each needs the other.
#include "model/b.h"
