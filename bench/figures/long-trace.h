// The memory of a host that runs for a long time and traces everything.
#pragma once

// Runs the host for this many simulated days, and prints its memory as a JSON object. Returns the program's exit code:
// 1 if the memory has grown after the first days.
int long_trace(int days);
