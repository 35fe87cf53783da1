// The command line: seven positional arguments as ever, and options beside
// them. A word that starts with "--" is an option, anywhere on the line, and
// takes the next word as its value unless it is a flag; every other word is
// positional. A line of positional words alone runs exactly as before.
#pragma once

#include <cstdio>
#include <string>

#include "shell/options.h"

// Splits argv into positional words and options, and fills in from the
// settings file of --config what the command line leaves out. Returns false
// with `error` naming the word or key for an unknown option, a missing value
// or a bad one.
bool ParseCommandLine(int argc, char **argv, CommandLine &line, std::string &error);

// The text of --help and --version.
void PrintUsage(FILE *out);
void PrintVersion(FILE *out);
