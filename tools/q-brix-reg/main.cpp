// q-brix-reg: the administrator's window into the registry store, with the commands and output
// of the Windows reg command (query, add, delete, export, import).
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "RegCommand.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    qbrix::tools::RegConsole console{std::cin, std::cout, std::cerr, ::isatty(STDIN_FILENO) == 1};
    int status = qbrix::tools::RunRegTool(args, console);
    std::cout.flush();
    return status;
}
