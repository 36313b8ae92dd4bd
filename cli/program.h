// The program `ats`: reads the command line, runs the command, and prints the command's error.
#pragma once

namespace cli
{

// Runs the program with the arguments of main(). Returns its exit code.
int run_program(int argc, char** argv);

} // namespace cli
