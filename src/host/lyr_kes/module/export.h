// The linkage of everything that the module shows to the engine and to diagnostics.
#pragma once

#define LYR_API extern "C" __attribute__((visibility("default")))
