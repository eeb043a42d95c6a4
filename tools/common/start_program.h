// Starts another program, as fork and exec do.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrelbridge::tools {

struct ProgramStart {
  std::vector<std::string> command;  // command[0] is a path, or a name that is searched for in PATH
  int input = -1;                    // descriptors for its standard input (-1: empty), output
  int output = -1;                   // and error
  int error = -1;
  int core = -1;  // the processor core that it runs on; -1: any
};

// The program inherits nothing else. It is killed when the thread that
// started it ends. One that cannot be started ends with code 127. Returns its process number;
// throws ToolError when there is no process to be had.
pid_t StartProgram(const ProgramStart& start);

}  // namespace kestrelbridge::tools
