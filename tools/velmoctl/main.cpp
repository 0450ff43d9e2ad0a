#include "velmoctl/Commands.h"

#include <clocale>
#include <exception>
#include <iostream>

int main(int nArguments, char** ppszArguments)
{
    // For the width of characters alone: all output is UTF-8, whatever the user's locale.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        return static_cast<int>(eExecute({ppszArguments + 1, ppszArguments + nArguments}, STOptions{}));
    } catch (const std::exception& xError) { // CFailures end in eExecute: out of memory and the like
        std::cerr << "velmoctl: " << xError.what() << "\n";
        return static_cast<int>(EExit::REFUSED);
    }
}
