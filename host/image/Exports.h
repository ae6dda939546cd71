// The host's exports a loaded image may import, by DLL and name: the kernel
// services of host/kernel (as ntoskrnl.exe exports them) and the port-class
// entry points of host/portcls (portcls.sys). HAL.dll exports nothing the
// driver needs on x64, so an import from it is refused like any unknown one.
#pragma once

#include <string>
#include <vector>

namespace hostimg {

struct Export {
    const char* dll;
    const char* name;
    void* address;
};
const std::vector<Export>& hostExports();
// DLL names compare without case, as the kernel's loader compares them;
// function names exactly. Null when the host does not export it.
void* hostExport(const std::string& dll, const std::string& name);

} // namespace hostimg
