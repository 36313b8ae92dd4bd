// Measures the memory of a host that runs for a long time and traces everything.
#pragma once

// Runs the host for `days` simulated days, at least three, and prints its memory as a JSON object. Returns the
// program's exit code: 1 if the memory has grown by more than 64 KiB after the first three days, or if the host could
// not be started.
int long_trace(int days);
