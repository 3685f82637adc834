// The program's command line: every subcommand and option is defined once, in
// command_line.cpp, and the parser (CLI11) builds the help texts from those definitions.
#pragma once

namespace vcli {

// Parses the command line and runs the subcommand it names. Returns the exit code: that of the
// subcommand; 0 after a help text on standard output; kExitUsage after one line on standard
// error for anything the parser refuses.
int RunCommandLine(int argc, char** argv);

}  // namespace vcli
