#include "frame/process.h"

int process_main(int, char**) { return 1; }
