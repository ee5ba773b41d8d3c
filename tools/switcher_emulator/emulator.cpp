#include "switcher_emulator/emulator.h"
