#pragma once

// Diagnostic lines go to standard error, one line per call. The format carries
// the level tag itself ("<DBG>", "<NOTE>", "<WARN>", "<ERR>", or none for the
// command line and early start-up) and ends with "\n".
[[gnu::format(printf, 1, 2)]] void diag(const char* fmt, ...);
