#include "control/printable.h"

namespace control {

std::string Printable(std::string_view text, std::string_view kept) {
    std::string printable(text);
    for (char &c : printable) {
        const bool controls = static_cast<unsigned char>(c) < ' ' || c == '\x7F';
        if (controls && kept.find(c) == std::string_view::npos) {
            c = '?';
        }
    }
    return printable;
}

}  // namespace control
