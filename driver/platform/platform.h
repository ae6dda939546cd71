// The one header through which driver code reaches the kernel, port-class
// and kernel-streaming declarations. On Windows these are the DDK's own
// (through win/ddk.h, which also closes the DDK headers' gaps under g++);
// on host they are our declarations with the same names and layouts.
#pragma once

#ifdef _WIN32
#include "win/ddk.h"
#else
#include "host/kernel.h"
#include "host/ks.h"
#include "host/portcls.h"
#endif

#include "compiler.h"
#include "layout.h"
