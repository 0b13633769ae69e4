// help.h - what --help and --version print.
#ifndef CARD_HELP_H
#define CARD_HELP_H

#include <string>

namespace card {

std::string help_text();
std::string version_text();

} // namespace card

#endif
