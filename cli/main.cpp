// The entry of the program `ats`.
#include "cli/program.h"

int main(int argc, char** argv)
{
    return cli::run_program(argc, argv);
}
