// veltrano: the command-line host of the Veltrano library.
#include "command_line.h"

int main(int argc, char** argv) { return vcli::RunCommandLine(argc, argv); }
