// The head unit's trace log, as the services see it.
#pragma once

extern "C" {

// Any thread, also between fork and exec. Writes one line to the trace log, or nothing when `level` is below
// the threshold (KA_LOG_LEVEL in the environment, default 128); a filtered line is not formatted. `format`
// and what follows are printf's; a null text prints "(null)". Control bytes and invalid UTF-8 in the result
// are escaped, so one call is one line. Keeps errno. `file`, `function` and `line` say where the call stands;
// `module` and `submodule` are the caller's numbers in the unit's trace table.
void ka_log_print(const char* file, const char* function, int line, int level, int module, int submodule,
                  const char* format, ...) __attribute__((format(printf, 7, 8)));

// The lowest level that is written. Any thread; read without a lock. A caller may compare before it prepares
// a costly argument.
extern int ka_log_threshold;
}
