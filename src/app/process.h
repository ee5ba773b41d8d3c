#pragma once

// The process entry: command line, start-up checks, signal handler, main loop.
// Returns the exit status: 0 after a normal end of the loop, 1 for every
// start-up failure and for the usage text.
[[nodiscard]] int process_main(int argc, char** argv);
