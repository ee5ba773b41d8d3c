#pragma once
#include "model/a.h"
