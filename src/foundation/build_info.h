// What this binary is: the release version and the build it came from.
#pragma once

const char *OmbryVersion();
// The commit the tree was configured from ("unknown" outside a checkout).
const char *OmbryBuildCommit();
// Compiler name and version, and the build type.
const char *OmbryBuildCompiler();
const char *OmbryBuildType();
