// tvxctl's help pages and ipmitool's vocabulary.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace tvxctl {

// Whether COMMAND has a page; prints it (a usage failure for an unknown command).
bool hasHelpPage(const std::string &command);
void printCommandHelp(std::FILE *out, const std::string &command);

// ipmitool's words for our commands, rewritten to the words tvxctl takes ("mc info" is
// "devid", "chassis power on" is "power on", "lan set 1 ipaddr A" is "lan set ip A"); other
// words come back as they are.
std::vector<std::string> canonicalWords(const std::vector<std::string> &words);

} // namespace tvxctl
