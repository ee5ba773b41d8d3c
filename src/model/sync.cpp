#include "model/sync.h"

void initial_sync() {}
