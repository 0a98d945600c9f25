// What stands for the shell in a program without the library that edits lines.
#include "control/input_error.h"
#include "shell.h"

namespace lyrctl {

ExitStatus RunShell(const Options &) {
    throw control::InputError(
        "there is no command (--help lists them); this lyrctl was built without libedit, and so "
        "without a shell; 'exec -' reads commands from standard input");
}

}  // namespace lyrctl
