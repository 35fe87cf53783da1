#include "foundation/build_info.h"

// The build system defines these for this file alone, so that a new commit
// rebuilds one object.
#ifndef OMBRY_VERSION
#define OMBRY_VERSION "0.0.0"
#endif
#ifndef OMBRY_BUILD_COMMIT
#define OMBRY_BUILD_COMMIT "unknown"
#endif
#ifndef OMBRY_BUILD_TYPE
#define OMBRY_BUILD_TYPE ""
#endif

const char *OmbryVersion() { return OMBRY_VERSION; }
const char *OmbryBuildCommit() { return OMBRY_BUILD_COMMIT; }
const char *OmbryBuildType() { return OMBRY_BUILD_TYPE; }

const char *OmbryBuildCompiler() {
#if defined(__clang__)
  return "clang " __clang_version__;
#elif defined(__GNUC__)
  return "g++ " __VERSION__;
#else
  return "unknown compiler";
#endif
}
