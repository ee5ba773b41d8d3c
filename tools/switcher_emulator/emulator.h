#pragma once
// The switcher emulator's logic (not built yet).
