// Reaches up a layer.
#include "service/b.h"
